// Rows announced from SQLite's text, against the same rows parsed, compared and
// printed by Jansson.

#include "db/statement.h"
#include "objects/change_json.h"
#include "objects/sql_text.h"
#include "tests/support/no_memory.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace qdb::test
{
namespace
{

using namespace std::string_literals;

// The names of two columns begin like the tag's.
constexpr Column kColumns[] = {
    {"OID", Null()},     {"a", Null()},
    {"b_DOT_c", Null()}, {"d", Null()},
    {"dd", Null()},      {"SingleRecordEtagOld", Null()},
    {"e", Null()},       {"SingleRecordEta", Null()},
};
constexpr Table kTable = {"TblTwo", kColumns, {}};

// Rows of a type whose listeners need the old values, and of another.
constexpr ObjTypeRow RowOf(uint32_t type)
{
    return {type, nullptr, nullptr, nullptr, nullptr, &kTable, ""};
}
constexpr ObjTypeRow kWithOld = RowOf(0x304);
constexpr ObjTypeRow kWithout = RowOf(0x16);

enum class Road
{
    Text,
    Object,
};

RowReading Read(const std::string &text, Road road, json_error_t *pError)
{
    if (road == Road::Object)
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
std::string Whole(const std::string &text, Road road)
{
    json_error_t error = {};
    RowReading reading = Read(text, road, &error);
    return reading.IsEmpty()
               ? std::to_string(error.line) + error.text
               : TextOf(RenderWholeRow(kWithout, std::move(reading)));
}

// How many columns differ, and what they are announced as.
std::string Difference(const ObjTypeRow &row, const std::string &before,
                       const std::string &after, Road road)
{
    int count = -1;
    RowReading old = Read(before, road, nullptr);
    const JsonText text = RenderDifference(row, std::move(old),
                                           Read(after, road, nullptr), &count);
    return std::to_string(count) + TextOf(text);
}

bool IsPlain(const std::string &text)
{
    return Read(text, Road::Text, nullptr).Plain() != nullptr;
}

bool IsJson(const std::string &text)
{
    return !Read(text, Road::Object, nullptr).IsEmpty();
}

// Has SQLite make texts of a row as nasty as a table can hold it. Half of them
// are plain.
class RowMaker
{
  public:
    RowMaker()
    {
        EXPECT_EQ(sqlite3_open(":memory:", &db_), SQLITE_OK);
        const char *separator = "CREATE TABLE TblTwo (";
        std::string sql;
        for (const Column &column : kColumns)
        {
            sql += separator + std::string(column.name);
            separator = ", ";
        }
        Run(sql + ", SingleRecordEtag)");
        Run("INSERT INTO TblTwo (OID) VALUES (1)");
    }
    ~RowMaker()
    {
        sqlite3_close(db_);
    }
    RowMaker(const RowMaker &) = delete;
    RowMaker &operator=(const RowMaker &) = delete;

    // All columns anew.
    std::string NewRow()
    {
        for (size_t i = 1; i < std::size(kColumns); ++i)
        {
            Change(kColumns[i].name);
        }
        return TouchedRow();
    }

    // At most two of them.
    std::string ChangedRow()
    {
        for (size_t changes = Below(3); changes > 0; --changes)
        {
            Change(kColumns[1 + Below(std::size(kColumns) - 1)].name);
        }
        return TouchedRow();
    }

  private:
    StatementPtr Prepare(const std::string &sql)
    {
        sqlite3_stmt *statement = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr),
                  SQLITE_OK);
        return StatementPtr(statement);
    }

    void Run(const std::string &sql)
    {
        EXPECT_EQ(sqlite3_step(Prepare(sql).get()), SQLITE_DONE);
    }

    std::string TouchedRow()
    {
        Run("UPDATE TblTwo SET SingleRecordEtag = '" +
            std::to_string(Below(3)) + "'");
        const StatementPtr select = Prepare(SelectJsonSql(kTable, false));
        sqlite3_bind_int(select.get(), 1, 1);
        EXPECT_EQ(sqlite3_step(select.get()), SQLITE_ROW);
        return reinterpret_cast<const char *>(
            sqlite3_column_text(select.get(), 0));
    }

    void Change(const std::string &column)
    {
        const StatementPtr update =
            Prepare("UPDATE TblTwo SET " + column + " = ?");
        BindAny(update.get());
        EXPECT_EQ(sqlite3_step(update.get()), SQLITE_DONE);
    }

    void BindAny(sqlite3_stmt *statement)
    {
        using Limits = std::numeric_limits<int64_t>;
        // clang-format off
        static const int64_t kIntegers[] = {0, 1, -1, 10, 999999999999999999, -999999999999999999, 1000000000000000000, Limits::min(), Limits::max()};
        static const double kReals[] = {0.0, -0.0, 0.1, 1.0, -2.5, 1e15, 1e16, 1e300, 5e-324, INFINITY, -INFINITY, NAN};
        // clang-format on
        const size_t kind = Below(30);
        if (kind == 0)
        {
            sqlite3_bind_double(statement, 1, OneOf(kReals));
        }
        else if (kind < 4)
        {
            sqlite3_bind_int64(statement, 1, OneOf(kIntegers));
        }
        else if (kind > 4)
        {
            const std::string text =
                kind == 5 ? AnyText() + UnusualText() + AnyText() : AnyText();
            sqlite3_bind_text(statement, 1, text.data(),
                              static_cast<int>(text.size()), SQLITE_TRANSIENT);
        }
    }

    std::string AnyText()
    {
        // clang-format off
        static const std::string kPieces[] = {
            "a", "12", "\"", "\\", "/", "\b\t\n\f\r", " ", "\x7F", "\":,}{",
            "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBE", "\xEF\xBF\xBF",
            "\xF0\x90\x80\x80", "\xF3\xBF\xBF\xBF", "\xF4\x8F\xBF\xBF", std::string(200, 'x')};
        // clang-format on
        std::string text;
        for (size_t pieces = Below(4); pieces > 0; --pieces)
        {
            text += OneOf(kPieces);
        }
        return text;
    }

    // Control characters without a short escape, and no UTF-8.
    std::string UnusualText()
    {
        // clang-format off
        static const std::string kPieces[] = {
            "\0"s, "\x01", "\x1F", "\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC2", "\xC2\xC0", "\xDF\x7F",
            "\xE0\x9F\xBF", "\xE2\x82", "\xE2\x28\xA1", "\xE2\x82\x28", "\xED\xA0\x80", "\xED\xBF\xBF",
            "\xF0\x8F\xBF\xBF", "\xF0\x90\x80", "\xF0\x90\x80\x28", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xF8\x88\x80\x80\x80", "\xFF"};
        // clang-format on
        return OneOf(kPieces);
    }

    size_t Below(size_t limit)
    {
        return std::uniform_int_distribution<size_t>(0, limit - 1)(random_);
    }

    template <typename T, size_t N>
    T OneOf(const T (&values)[N])
    {
        return values[Below(N)];
    }

    std::mt19937 random_{20240229};
    sqlite3 *db_ = nullptr;
};

TEST(RowText, IsAnnouncedAsByJansson)
{
    RowMaker maker;
    int plain = 0;
    int refused = 0;
    int unchanged = 0;
    constexpr int kRounds = 2000;
    for (int round = 0; round < kRounds && !HasFailure(); ++round)
    {
        const std::string before = maker.NewRow();
        const std::string after = maker.ChangedRow();
        SCOPED_TRACE(before + "\n" + after);
        EXPECT_EQ(Whole(before, Road::Text), Whole(before, Road::Object));
        EXPECT_EQ(Whole(after, Road::Text), Whole(after, Road::Object));
        plain += IsPlain(before) && IsPlain(after) ? 1 : 0;
        if (!IsJson(before) || !IsJson(after))
        {
            ++refused;
            continue;
        }
        for (const ObjTypeRow &type : {kWithOld, kWithout})
        {
            const std::string expected =
                Difference(type, before, after, Road::Object);
            EXPECT_EQ(Difference(type, before, after, Road::Text), expected);
            unchanged += expected == "0(none)" ? 1 : 0;
        }
    }
    EXPECT_GT(plain, kRounds / 3);
    EXPECT_GT(refused, kRounds / 20);
    EXPECT_GT(unchanged, kRounds / 5);
}

// What SQLite never makes of a row, and the bounds of what it does.
TEST(RowText, LeavesTheUnusualToJansson)
{
    const std::string head = R"({"OID":1,"a":2,"b_DOT_c":3,"d":4,"dd":5,)"
                             R"("SingleRecordEtagOld":6,"e":)";
    const std::string tail = R"(,"SingleRecordEta":8,"SingleRecordEtag":"9"})";
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
    const std::string usual = head + "7" + tail;
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        EXPECT_EQ(IsPlain(test.text), test.plain);
        EXPECT_EQ(Whole(test.text, Road::Text), Whole(test.text, Road::Object));
        if (IsJson(test.text))
        {
            EXPECT_EQ(Difference(kWithOld, usual, test.text, Road::Text),
                      Difference(kWithOld, usual, test.text, Road::Object));
            EXPECT_EQ(Difference(kWithOld, test.text, usual, Road::Text),
                      Difference(kWithOld, test.text, usual, Road::Object));
        }
    }
    // Texts that end too early.
    for (size_t size = 0; size < usual.size(); ++size)
    {
        const std::string text = usual.substr(0, size);
        EXPECT_EQ(Whole(text, Road::Text), Whole(text, Road::Object));
    }
}

TEST(RowText, NeedsMemoryToBeAnnounced)
{
    RowReading reading = Read(RowMaker().ChangedRow(), Road::Text, nullptr);
    ASSERT_NE(reading.Plain(), nullptr);
    tNoMemory = true;
    const JsonText announced = RenderWholeRow(kWithout, std::move(reading));
    tNoMemory = false;
    EXPECT_EQ(announced, nullptr);
}

} // namespace
} // namespace qdb::test
