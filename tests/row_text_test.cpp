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
#include <variant>

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
constexpr size_t kTag = std::size(kColumns);
constexpr Table kTable = {"TblTwo", kColumns, {}};

// Rows of a type whose listeners need the old values, and of another.
constexpr ObjTypeRow kWithOld = {0x304,   nullptr, nullptr, nullptr,
                                 nullptr, &kTable, "304"};
constexpr ObjTypeRow kWithout = {0x16,    nullptr, nullptr, nullptr,
                                 nullptr, &kTable, "16"};

// The two roads.
using Reader = RowReading(const std::string &text, json_error_t *pError);

RowReading FromText(const std::string &text, json_error_t *pError)
{
    RowReading reading;
    const bool taken = reading.Read(kTable, text.c_str(), pError);
    EXPECT_NE(taken, reading.IsEmpty());
    return reading;
}

RowReading FromObject(const std::string &text, json_error_t *pError)
{
    return RowReading(JsonPtr(json_loads(text.c_str(), 0, pError)));
}

std::string TextOf(const JsonText &text)
{
    return text == nullptr ? "(none)" : text.get();
}

// What a row is announced as, or how its text fails.
std::string Whole(const std::string &text, Reader read)
{
    json_error_t error = {};
    RowReading reading = read(text, &error);
    return reading.IsEmpty()
               ? std::to_string(error.line) + error.text
               : TextOf(RenderWholeRow(kWithout, std::move(reading)));
}

// How many columns differ, and what they are announced as.
std::string Difference(const ObjTypeRow &row, const std::string &before,
                       const std::string &after, Reader read)
{
    json_error_t error = {};
    int count = -1;
    RowReading old = read(before, &error);
    const JsonText text =
        RenderDifference(row, std::move(old), read(after, &error), &count);
    return std::to_string(count) + TextOf(text);
}

bool IsPlain(const std::string &text)
{
    json_error_t error = {};
    return FromText(text, &error).Plain() != nullptr;
}

bool IsJson(const std::string &text)
{
    json_error_t error = {};
    return !FromObject(text, &error).IsEmpty();
}

using Value = std::variant<std::monostate, int64_t, double, std::string>;
using Row = std::array<Value, kTag + 1>;

// Rows as nasty as a table can hold them; half of them plain.
class Generator
{
  public:
    Row AnyRow()
    {
        Row row;
        std::ranges::generate(row,
                              [this]
                              {
                                  return AnyValue();
                              });
        row.front() = int64_t{1};
        return row;
    }

    // The row with some columns changed, and now and then none.
    Row Changed(Row row)
    {
        for (size_t changes = Below(3); changes > 0; --changes)
        {
            row[1 + Below(kTag)] = AnyValue();
        }
        row[kTag] = std::to_string(Below(3));
        return row;
    }

  private:
    size_t Below(size_t limit)
    {
        return std::uniform_int_distribution<size_t>(0, limit - 1)(random_);
    }

    template <typename T, size_t N>
    T OneOf(const T (&values)[N])
    {
        return values[Below(N)];
    }

    Value AnyValue()
    {
        using Limits = std::numeric_limits<int64_t>;
        // clang-format off
        static const int64_t kIntegers[] = {0, 1, -1, 10, 999999999999999999, -999999999999999999, 1000000000000000000, Limits::min(), Limits::max()};
        static const double kReals[] = {0.0, -0.0, 0.1, 1.0, -2.5, 1e15, 1e16, 1e300, 5e-324, INFINITY, -INFINITY, NAN};
        // clang-format on
        switch (Below(30))
        {
        case 0:
            return OneOf(kReals);
        case 1:
            return AnyText() + UnusualText() + AnyText();
        case 2:
            return OneOf(kIntegers);
        case 3:
            return Value();
        case 4:
            return static_cast<int64_t>(Below(1000));
        default:
            return AnyText();
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

    std::mt19937 random_{20240229};
};

// Has SQLite make texts of the rows of a table.
class TextMaker
{
  public:
    TextMaker()
    {
        EXPECT_EQ(sqlite3_open(":memory:", &db_), SQLITE_OK);
        StatementPtr create = Prepare(
            "CREATE TABLE TblTwo (OID UNIQUE, a, b_DOT_c, d, dd, "
            "SingleRecordEtagOld, e, SingleRecordEta, SingleRecordEtag)");
        EXPECT_EQ(sqlite3_step(create.get()), SQLITE_DONE);
        insert_ =
            Prepare("REPLACE INTO TblTwo VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)");
        select_ = Prepare(SelectJsonSql(kTable, false));
    }
    ~TextMaker()
    {
        insert_.reset();
        select_.reset();
        sqlite3_close(db_);
    }
    TextMaker(const TextMaker &) = delete;
    TextMaker &operator=(const TextMaker &) = delete;

    std::string TextOf(const Row &row)
    {
        const StatementReset insertReset(insert_.get());
        const StatementReset selectReset(select_.get());
        int parameter = 0;
        for (const Value &value : row)
        {
            ++parameter;
            std::visit(
                [&](const auto &held)
                {
                    Bind(parameter, held);
                },
                value);
        }
        EXPECT_EQ(sqlite3_step(insert_.get()), SQLITE_DONE);
        sqlite3_bind_int(select_.get(), 1, 1);
        EXPECT_EQ(sqlite3_step(select_.get()), SQLITE_ROW);
        return reinterpret_cast<const char *>(
            sqlite3_column_text(select_.get(), 0));
    }

  private:
    StatementPtr Prepare(const std::string &sql)
    {
        sqlite3_stmt *statement = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr),
                  SQLITE_OK);
        return StatementPtr(statement);
    }

    void Bind(int parameter, std::monostate)
    {
        sqlite3_bind_null(insert_.get(), parameter);
    }
    void Bind(int parameter, int64_t value)
    {
        sqlite3_bind_int64(insert_.get(), parameter, value);
    }
    void Bind(int parameter, double value)
    {
        sqlite3_bind_double(insert_.get(), parameter, value);
    }
    void Bind(int parameter, const std::string &value)
    {
        sqlite3_bind_text(insert_.get(), parameter, value.data(),
                          static_cast<int>(value.size()), SQLITE_TRANSIENT);
    }

    sqlite3 *db_ = nullptr;
    StatementPtr insert_;
    StatementPtr select_;
};

TEST(RowText, IsAnnouncedAsByJansson)
{
    Generator generator;
    TextMaker maker;
    int plain = 0;
    int refused = 0;
    int unchanged = 0;
    constexpr int kRounds = 2000;
    for (int round = 0; round < kRounds && !HasFailure(); ++round)
    {
        const Row row = generator.AnyRow();
        const std::string before = maker.TextOf(row);
        const std::string after = maker.TextOf(generator.Changed(row));
        SCOPED_TRACE(before + "\n" + after);
        EXPECT_EQ(Whole(before, FromText), Whole(before, FromObject));
        EXPECT_EQ(Whole(after, FromText), Whole(after, FromObject));
        plain += IsPlain(before) && IsPlain(after) ? 1 : 0;
        if (!IsJson(before) || !IsJson(after))
        {
            ++refused;
            continue;
        }
        for (const ObjTypeRow &type : {kWithOld, kWithout})
        {
            const std::string expected =
                Difference(type, before, after, FromObject);
            EXPECT_EQ(Difference(type, before, after, FromText), expected);
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
        EXPECT_EQ(Whole(test.text, FromText), Whole(test.text, FromObject));
        if (IsJson(test.text))
        {
            EXPECT_EQ(Difference(kWithOld, usual, test.text, FromText),
                      Difference(kWithOld, usual, test.text, FromObject));
            EXPECT_EQ(Difference(kWithOld, test.text, usual, FromText),
                      Difference(kWithOld, test.text, usual, FromObject));
        }
    }
    // Every text that ends too early.
    for (size_t size = 0; size < usual.size(); ++size)
    {
        const std::string text = usual.substr(0, size);
        EXPECT_EQ(Whole(text, FromText), Whole(text, FromObject));
    }
}

TEST(RowText, NeedsMemoryToBeAnnounced)
{
    Row row;
    row.front() = int64_t{1};
    const std::string text = TextMaker().TextOf(row);
    json_error_t error = {};
    RowReading reading = FromText(text, &error);
    ASSERT_NE(reading.Plain(), nullptr);
    tNoMemory = true;
    const JsonText announced = RenderWholeRow(kWithout, std::move(reading));
    tNoMemory = false;
    EXPECT_EQ(announced, nullptr);
}

} // namespace
} // namespace qdb::test
