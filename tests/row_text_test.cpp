// Rows announced from SQLite's text, against the same rows parsed, compared and
// printed by Jansson.

#include "objects/change_json.h"

#include <gtest/gtest.h>

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

// Rows of a type whose listeners need the old values, and of another.
constexpr ObjTypeRow kWithOld = {0x304, "", &kTable, Trait::PreviousValues};
constexpr ObjTypeRow kWithout = {0x16, "", &kTable};

enum class Parser
{
    Text,
    Object,
};

RowReading Read(const std::string &text, Parser parser, json_error_t *pError)
{
    if (parser == Parser::Object)
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
std::string Whole(const std::string &text, Parser parser)
{
    json_error_t error = {};
    RowReading reading = Read(text, parser, &error);
    return reading.IsEmpty()
               ? std::to_string(error.line) + error.text
               : TextOf(RenderWholeRow(kWithout, std::move(reading)));
}

// How many columns differ, and what they are announced as.
std::string Difference(const ObjTypeRow &row, const std::string &before,
                       const std::string &after, Parser parser)
{
    int count = -1;
    RowReading old = Read(before, parser, nullptr);
    const JsonText text = RenderDifference(
        row, std::move(old), Read(after, parser, nullptr), &count);
    return std::to_string(count) + TextOf(text);
}

bool IsPlain(const std::string &text)
{
    return Read(text, Parser::Text, nullptr).Plain() != nullptr;
}

bool IsJson(const std::string &text)
{
    return !Read(text, Parser::Object, nullptr).IsEmpty();
}

// A row around the text of one value.
const std::string kHead = R"({"OID":1,"a":2,"b_DOT_c":3,"d":4,"dd":5,)"
                          R"("SingleRecordEtagOld":6,"e":)";
const std::string kTail = R"(,"SingleRecordEta":8,"SingleRecordEtag":"9"})";

// What SQLite never makes of a row, and the bounds of what it does.
TEST(RowText, LeavesTheUnusualToJansson)
{
    const std::string &head = kHead;
    const std::string &tail = kTail;
    // clang-format off
    const struct
    {
        const char *name;
        std::string text;
        bool plain;
    } cases[] = {
        {"null", head + "null" + tail, true},
        {"escapes", head + R"("\"\\\b\f\n\r\t/")" + tail, true},
        {"18 digits", head + "-123456789012345678" + tail, true},
        {"19 digits", head + "1234567890123456789" + tail, false},
        {"20 digits", head + "12345678901234567890" + tail, false},
        {"leading zero", head + "01" + tail, false},
        {"zero with a sign", head + "-0" + tail, false},
        {"sign alone", head + "-" + tail, false},
        {"plus", head + "+1" + tail, false},
        {"real", head + "1.5" + tail, false},
        {"exponent", head + "1e5" + tail, false},
        {"escaped slash", head + R"("\/")" + tail, false},
        {"unknown escape", head + R"("\x")" + tail, false},
        {"digits in lower case", head + R"("\u001f")" + tail, false},
        {"escaped NUL", head + R"("\u0000")" + tail, false},
        {"surrogate pair", head + R"("\ud83d\ude00")" + tail, false},
        {"raw control character", head + "\"\n\"" + tail, false},
        {"the last of them", head + "\"\x1F\"" + tail, false},
        {"overlong NUL", head + "\"\xC0\x80\"" + tail, false},
        {"overlong", head + "\"\xE0\x9F\xBF\"" + tail, false},
        {"first surrogate", head + "\"\xED\xA0\x80\"" + tail, false},
        {"last surrogate", head + "\"\xED\xBF\xBF\"" + tail, false},
        {"above the last character", head + "\"\xF4\x90\x80\x80\"" + tail, false},
        {"cut character", head + "\"\xE2\x82\"" + tail, false},
        {"stray byte", head + "\"\x80\"" + tail, false},
        {"first and last of a length", head + "\"\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD\xF0\x90\x80\x80\xF4\x8F\xBF\xBF\"" + tail, true},
        {"true", head + "true" + tail, false},
        {"nul", head + "nul" + tail, false},
        {"nothing", head + tail, false},
        {"array", head + "[1]" + tail, false},
        {"object", head + R"({"a":1})" + tail, false},
        {"blank before", head + " 7" + tail, false},
        {"blank behind", head + "7 " + tail, false},
        {"blank at the end", head + "7" + tail + " ", false},
        {"more at the end", head + "7" + tail + "}", false},
        {"key twice", head + R"(7,"e":8)" + tail, false},
        {"key left out", R"({"OID":1,"SingleRecordEtag":"9"})", false},
        {"another key", R"({"OIE":1)" + head.substr(8) + "7" + tail, false},
        {"longer key", R"({"OIDs":1)" + head.substr(8) + "7" + tail, false},
        {"key not closed", R"({"OID:1)" + head.substr(8) + "7" + tail, false},
        {"values alone", R"({1,2,3,4,5,6,7,8,"9"})", false},
        {"empty object", "{}", false},
        {"array outside", "[" + head + "7" + tail + "]", false},
    };
    // clang-format on
    const std::string usual = head + "7" + tail;
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        EXPECT_EQ(IsPlain(test.text), test.plain);
        EXPECT_EQ(Whole(test.text, Parser::Text),
                  Whole(test.text, Parser::Object));
        if (IsJson(test.text))
        {
            EXPECT_EQ(Difference(kWithOld, usual, test.text, Parser::Text),
                      Difference(kWithOld, usual, test.text, Parser::Object));
            EXPECT_EQ(Difference(kWithOld, test.text, usual, Parser::Text),
                      Difference(kWithOld, test.text, usual, Parser::Object));
        }
    }
    // Texts that end too early.
    for (size_t size = 0; size < usual.size(); ++size)
    {
        const std::string text = usual.substr(0, size);
        EXPECT_EQ(Whole(text, Parser::Text), Whole(text, Parser::Object));
    }
}

} // namespace
} // namespace qdb::test
