// Rows announced from SQLite's text, against the same rows parsed, compared and
// printed by Jansson.

#include "objects/change_json.h"
#include "tests/support/handler_fixture.h"

namespace qdb::test
{
namespace
{

// The names of two columns begin like the tag's.
constexpr Column kColumns[] = {
    {"OID", Null()},     {"a", Null()},
    {"b_DOT_c", Null()}, {"d", Null()},
    {"dd", Null()},      {"SingleRecordEtagOld", Null()},
    {"e", Null()},       {"SingleRecordEta", Null()},
};
constexpr Table kTable = {"TblTwo", kColumns, {}};
// A row of a type whose listeners need the old values.
constexpr ObjTypeRow kRow = {0x304, "", &kTable, Trait::PreviousValues};

// A row around the text of one value.
const std::string kHead = R"({"OID":1,"a":2,"b_DOT_c":3,"d":4,"dd":5,)"
                          R"("SingleRecordEtagOld":6,"e":)";
const std::string kTail = R"(,"SingleRecordEta":8,"SingleRecordEtag":"9"})";

// Reads the text by itself, or by Jansson.
RowReading Read(const std::string &text, bool byJansson,
                json_error_t *pError = nullptr)
{
    if (byJansson)
    {
        return RowReading(JsonPtr(json_loads(text.c_str(), 0, pError)));
    }
    RowReading reading;
    const bool taken = reading.Read(kTable, text.c_str(), pError);
    EXPECT_NE(taken, reading.IsEmpty());
    return reading;
}

std::string TextOf(const JsonText &text)
{
    return text == nullptr ? "(none)" : text.get();
}

// What a row is announced as, or how its text fails.
std::string Whole(const std::string &text, bool byJansson)
{
    json_error_t error = {};
    RowReading reading = Read(text, byJansson, &error);
    return reading.IsEmpty() ? std::to_string(error.line) + error.text
                             : TextOf(RenderWholeRow(kRow, std::move(reading)));
}

// How many columns differ, and what they are announced as.
std::string Difference(const std::string &before, const std::string &after,
                       bool byJansson)
{
    int count = -1;
    const JsonText text = RenderDifference(kRow, Read(before, byJansson),
                                           Read(after, byJansson), &count);
    return std::to_string(count) + TextOf(text);
}

// What SQLite never makes of a row, and the bounds of what it does.
TEST(RowText, LeavesTheUnusualToJansson)
{
    // clang-format off
    const struct
    {
        const char *name;
        std::string text;
        bool plain;
    } cases[] = {
        {"null", kHead + "null" + kTail, true},
        {"escapes", kHead + R"("\"\\\b\f\n\r\t/")" + kTail, true},
        {"18 digits", kHead + "-123456789012345678" + kTail, true},
        {"19 digits", kHead + "1234567890123456789" + kTail, false},
        {"leading zero", kHead + "01" + kTail, false},
        {"zero with a sign", kHead + "-0" + kTail, false},
        {"sign alone", kHead + "-" + kTail, false},
        {"real", kHead + "1.5" + kTail, false},
        {"escaped slash", kHead + R"("\/")" + kTail, false},
        {"unknown escape", kHead + R"("\x")" + kTail, false},
        {"digits in lower case", kHead + R"("\u001f")" + kTail, false},
        {"escaped NUL", kHead + R"("\u0000")" + kTail, false},
        {"surrogate pair", kHead + R"("\ud83d\ude00")" + kTail, false},
        {"raw control character", kHead + "\"\n\"" + kTail, false},
        {"overlong", kHead + "\"\xE0\x9F\xBF\"" + kTail, false},
        {"first surrogate", kHead + "\"\xED\xA0\x80\"" + kTail, false},
        {"above the last character", kHead + "\"\xF4\x90\x80\x80\"" + kTail, false},
        {"cut character", kHead + "\"\xE2\x82\"" + kTail, false},
        {"stray byte", kHead + "\"\x80\"" + kTail, false},
        {"first and last of a length", kHead + "\"\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD\xF0\x90\x80\x80\xF4\x8F\xBF\xBF\"" + kTail, true},
        {"true", kHead + "true" + kTail, false},
        {"nothing", kHead + kTail, false},
        {"array", kHead + "[1]" + kTail, false},
        {"blank before", kHead + " 7" + kTail, false},
        {"blank behind", kHead + "7 " + kTail, false},
        {"more at the end", kHead + "7" + kTail + "}", false},
        {"key twice", kHead + R"(7,"e":8)" + kTail, false},
        {"key left out", R"({"OID":1,"SingleRecordEtag":"9"})", false},
        {"longer key", R"({"OIDs":1)" + kHead.substr(8) + "7" + kTail, false},
        {"key not closed", R"({"OID:1)" + kHead.substr(8) + "7" + kTail, false},
        {"values alone", R"({1,2,3,4,5,6,7,8,"9"})", false},
        {"array outside", "[" + kHead + "7" + kTail + "]", false},
    };
    // clang-format on
    const std::string usual = kHead + "7" + kTail;
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        EXPECT_EQ(Read(test.text, false).Plain() != nullptr, test.plain);
        EXPECT_EQ(Whole(test.text, false), Whole(test.text, true));
        if (!Read(test.text, true).IsEmpty())
        {
            EXPECT_EQ(Difference(usual, test.text, false),
                      Difference(usual, test.text, true));
            EXPECT_EQ(Difference(test.text, usual, false),
                      Difference(test.text, usual, true));
        }
    }
    // Texts that end too early.
    for (size_t size = 0; size < usual.size(); ++size)
    {
        const std::string text = usual.substr(0, size);
        EXPECT_EQ(Whole(text, false), Whole(text, true));
    }
}

// The tables of a hundred columns have a reader of their own.
TEST_F(Handler, EachReaderTellsAnyText)
{
    const struct
    {
        uint16_t type;
        std::string column;
    } kReaders[] = {{kStatus, "popName"}, {0x304, "currentAvailableFwVer"}};
    for (const char *text :
         {R"("")", R"("\"quoted\"")", R"("ends in \\")", R"("C:\\new")",
          R"("\t\n\u0001\u001F")", "\"\x7F\"",
          "\"\xC3\xA9\xE6\xBC\xA2\xF0\x9F\x98\x80\"", R"("\":,}{")"})
    {
        for (const auto &[type, column] : kReaders)
        {
            const std::string member = '"' + column + "\": " + text;
            EXPECT_EQ(Create(MakeObject(type, type, '{' + member + '}')), 0);
            const Lines told = Announced();
            ASSERT_EQ(told.size(), 1u);
            EXPECT_NE(told[0].find(member), std::string::npos) << told[0];
            mirror_.Rows("DELETE FROM ActiveOIDMapping");
        }
    }
}

} // namespace
} // namespace qdb::test
