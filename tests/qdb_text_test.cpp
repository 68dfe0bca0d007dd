// What qdb makes of rows and of changes.
#include "tools/qdb/grid.h"
#include "tools/qdb/value.h"
#include "tools/qdb/watcher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qdb::tool
{
namespace
{

constexpr const char *kNow = "TIME";

JsonPtr Parsed(const char *text)
{
    JsonPtr value(json_loads(text, JSON_DECODE_ANY, nullptr));
    EXPECT_TRUE(value) << text;
    return value;
}

// What the watcher prints, its notes marked with "! " each.
std::string Printed(Watcher &watcher)
{
    std::string text = watcher.TakeLines();
    std::string notes = watcher.TakeNotes();
    for (size_t end = notes.find('\n'); end != std::string::npos;
         end = notes.find('\n'))
    {
        text += "! " + notes.substr(0, end + 1);
        notes.erase(0, end + 1);
    }
    return text;
}

// Something that the watcher is told of: a row, the end of one (NULL), or with
// the table "ready" or "away".
struct Happening
{
    const char *table;
    const char *key;
    const char *row;
};

// One watcher is told of all, on object 42, and what it prints comes back.
std::string Watched(const WatchOptions &options,
                    const std::vector<Happening> &happenings)
{
    Watcher watcher(options);
    std::string text;
    for (const auto &[table, key, row] : happenings)
    {
        const bool isReady = std::string_view(table) == "ready";
        if (isReady || std::string_view(table) == "away")
        {
            watcher.OnReady(isReady);
        }
        else if (row == nullptr)
        {
            watcher.OnRemoved(table, 42, kNow);
        }
        else
        {
            watcher.OnRow(table, 42, key, Parsed(row), kNow);
        }
        text += Printed(watcher);
    }
    return text;
}

constexpr Happening kReady = {"ready", "", nullptr};
constexpr const char *kWatching = "! watching\n";

TEST(QdbText, TellsChangesToPeople)
{
    const struct
    {
        const char *what;
        std::vector<Happening> happenings;
        std::string expected;
    } cases[] = {
        {"a row's life, without its stamp",
         {kReady,
          {"T", "k|A1", R"({"Speed": 2400, "Name": null, "Etag": "e"})"},
          {"T", "k|A1", R"({"Speed": 2933, "Name": "x", "Etag": "e"})"},
          {"T", "k|A1",
           R"({"Speed": 1, "Name": "x", "Etag": "e", "SingleRecordEtag": "2"})"},
          {"T", "", nullptr},
          {"T", "", nullptr},
          {"T", "", R"({"Speed": 1})"}},
         std::string(kWatching) +
             "TIME T 42 Added k|A1\n"
             "TIME T 42 Changed k|A1: Speed 2400 -> 2933, Name null -> \"x\"\n"
             "TIME T 42 Changed k|A1: Speed 2933 -> 1\n"
             "TIME T 42 Removed k|A1\n"
             "TIME T 42 Added\n"},

        {"rows that were there aren't told of, but known; what comes behind an "
         "absence is",
         {{"T", "k", R"({"v": 1})"},
          {"U", "k", R"({"v": 1})"},
          {"U", "k", nullptr},
          kReady,
          {"T", "k", R"({"v": 2})"},
          {"away", "", nullptr},
          {"U", "k", R"({"v": 3})"},
          kReady},
         std::string(kWatching) +
             "TIME T 42 Changed k: v 1 -> 2\n"
             "! the service, bus or database is away\n"
             "TIME U 42 Added k\n" +
             kWatching},

        {"elements of arrays, longer and shorter ones; reals",
         {kReady,
          {"T", "", R"({"f": 21.299999237060547, "a": [5, 6], "l": [1, 2],
                        "r": [{"avg": 1, "peak": 2}], "n": null})"},
          {"T", "", R"({"f": 1e300, "a": [5, 9, 1], "l": [1],
                        "r": [{"avg": 3, "peak": 2}], "n": [2]})"}},
         std::string(kWatching) +
             "TIME T 42 Added\n"
             "TIME T 42 Changed: f 21.3 -> 1e+300, a[1] 6 -> 9, a[2] -> 1,"
             " l now has 1 elements,"
             " r[0] {\"avg\":1,\"peak\":2} -> {\"avg\":3,\"peak\":2},"
             " n null -> [2]\n"},

        {"no text reaches the terminal's control functions",
         {kReady,
          {"T\x1b[2J", "a\nb\x7f\xc2\x9b\u00e4", R"({"v": 1})"},
          {"T\x1b[2J", "", R"({"v": "\u001b[2J\u009b"})"}},
         std::string(kWatching) +
             "TIME T\\u001b[2J 42 Added a\\u000ab\\u007f\\u009b\u00e4\n"
             "TIME T\\u001b[2J 42 Changed: v 1 -> \"\\u001B[2J\\u009b\"\n"},
    };
    for (const auto &item : cases)
    {
        EXPECT_EQ(Watched({}, item.happenings), item.expected) << item.what;
    }
}

TEST(QdbText, TellsChangesToPrograms)
{
    WatchOptions options;
    options.isJson = true;
    options.isAll = true;
    EXPECT_EQ(
        Watched(options,
                {{"T", "k", R"({"OID": 1, "SingleRecordEtag": "1", "v": 0.5})"},
                 kReady,
                 {"T", "k",
                  R"({"OID": 1, "SingleRecordEtag": "2", "v": "\u009b"})"},
                 {"T", "k", nullptr},
                 {"away", "", nullptr}}),
        R"({"kind": "Present", "table": "T", "oid": 42, "row": {"OID": 1, )"
        R"("SingleRecordEtag": "1", "v": 0.5}})"
        "\n"
        R"({"kind": "Ready"})"
        "\n! watching\n"
        R"({"kind": "Changed", "table": "T", "oid": 42, "row": {"OID": 1, )"
        R"("SingleRecordEtag": "2", "v": "\u009b"}, "changed": )"
        R"({"SingleRecordEtag": "2", "v": "\u009b"}, )"
        R"("previous": {"SingleRecordEtag": "1", "v": 0.5}})"
        "\n"
        R"({"kind": "Removed", "table": "T", "oid": 42, "row": {"OID": 1, )"
        R"("SingleRecordEtag": "2", "v": "\u009b"}})"
        "\n"
        R"({"kind": "Away"})"
        "\n! the service, bus or database is away\n");
}

TEST(QdbText, MarksResyncsInLinesOfTheirOwn)
{
    WatchOptions options;
    Watcher people(options);
    people.OnResynced(QDB_LOST_SIGNALS, 1, 2, 3, kNow);
    people.OnResynced(static_cast<qdb_reason>(7), 0, 0, 0, kNow);
    EXPECT_EQ(Printed(people),
              "TIME resync, signals were lost: 1 added, 2 changed, 3 removed\n"
              "TIME resync, for an unknown reason: 0 added, 0 changed, "
              "0 removed\n");
    options.isJson = true;
    Watcher programs(options);
    programs.OnResynced(QDB_NEW_SERVICE, 0, 2, 0, kNow);
    EXPECT_EQ(Printed(programs),
              R"({"kind": "Resync", "reason": "new-service",)"
              R"( "added": 0, "changed": 2, "removed": 0})"
              "\n");
}

TEST(QdbText, ShortensLongValuesBetweenCharacters)
{
    // The quote and 100 bytes end inside a character.
    std::string text;
    for (int i = 0; i < 60; ++i)
    {
        text += "\u00e4";
    }
    const std::string row = "{\"v\": \"" + text + "\"}";
    EXPECT_EQ(
        Watched({}, {{"T", "", R"({"v": 1})"}, kReady, {"T", "", row.c_str()}}),
        kWatching +
            ("TIME T 42 Changed: v 1 -> \"" + text.substr(0, 98) + "...\n"));
}

TEST(QdbText, RepairsWhatIsNotUtf8)
{
    const struct
    {
        const char *text;
        const char *repaired;
    } cases[] = {
        {"a\xff"
         "b\u00e4",
         "a\uFFFDb\u00e4"},
        {"\x9b[2J", "\uFFFD[2J"},
        {"\xe2\x82", "\uFFFD\uFFFD"},
        {"\xc0\x9b", "\uFFFD\uFFFD"},
        {"", ""},
    };
    for (const auto &item : cases)
    {
        EXPECT_STREQ(json_string_value(TextValue(item.text).get()),
                     item.repaired);
    }
}

Grid SomeGrid()
{
    Grid grid;
    grid.columns = {"name", "n"};
    for (const char *row :
         {R"(["\u00e4,\"b\"", 7])", R"(["\u001b", null])", R"(["", -10])"})
    {
        const JsonPtr values = Parsed(row);
        auto &cells = grid.rows.emplace_back();
        cells.push_back(Share(json_array_get(values.get(), 0)));
        cells.push_back(Share(json_array_get(values.get(), 1)));
    }
    return grid;
}

TEST(QdbText, PrintsGridsInEachForm)
{
    const struct
    {
        const char *what;
        Style style;
        const char *expected;
    } cases[] = {
        // clang-format off
        {"aligned", {Form::People, false, false, 0},
         "name       n\n" "\u00e4,\"b\"      7\n" "\\u001b  NULL\n" "         -10\n"},
        {"in colour, and as wide as the terminal", {Form::People, true, true, 12},
         "\x1b[1mname       n\x1b[0m\n" "\u00e4,\"b\"      7\n" "\\u001b  NULL\n" "         -10\n"},
        {"too wide for the terminal", {Form::People, true, false, 11},
         "name  \u00e4,\"b\"\nn     7\n\n" "name  \\u001b\nn     NULL\n\n" "name  \nn     -10\n"},
        {"JSON", {Form::Json, false, false, 0},
         "{\"name\": \"\u00e4,\\\"b\\\"\", \"n\": 7}\n" "{\"name\": \"\\u001B\", \"n\": null}\n" "{\"name\": \"\", \"n\": -10}\n"},
        {"CSV", {Form::Csv, false, false, 0}, "name,n\n\"\u00e4,\"\"b\"\"\",7\n\x1b,\n\"\",-10\n"},
        {"CSV in a terminal", {Form::Csv, true, false, 0}, "name,n\n\"\u00e4,\"\"b\"\"\",7\n\\u001b,\n\"\",-10\n"},
        // clang-format on
    };
    for (const auto &item : cases)
    {
        EXPECT_EQ(GridText(SomeGrid(), item.style), item.expected) << item.what;
    }
}

} // namespace
} // namespace qdb::tool
