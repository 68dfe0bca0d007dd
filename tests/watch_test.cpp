// What qdb-watch makes of signals and of the bytes of the telemetry pipe.
#include "tools/watch/pipe_parser.h"
#include "tools/watch/render.h"
#include "tools/watch/row_cache.h"
#include "tools/watch/watcher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qdb::watch
{
namespace
{

constexpr const char *kNow = "TIME";

// What the watcher prints, its errors marked with "!".
std::string Printed(const Output &output)
{
    std::string text = output.lines;
    for (const std::string &error : output.errors)
    {
        text += "! " + error + '\n';
    }
    return text;
}

struct Signal
{
    Kind kind;
    const char *text;
};

// Feeds the signals to one watcher and gives all that it prints.
std::string Watched(const Options &options, const std::vector<Signal> &signals)
{
    Watcher watcher(options);
    std::string text;
    for (const Signal &signal : signals)
    {
        text += Printed(watcher.OnSignal(signal.kind, signal.text, kNow));
    }
    return text;
}

TEST(Watch, TellsChangesToPeople)
{
    const struct
    {
        const char *what;
        std::vector<Signal> signals;
        const char *expected;
    } cases[] = {
        {"a row's life; old values come from the row last seen",
         {{Kind::Added,
           R"({"TableName": "TblMemoryInfo", "RowDetails": {"fqdd": "DIMM.A1",
               "Key": "k|A1", "OID": 42, "ParentObjectKey": "p", "Speed": 2400,
               "Name": null, "SingleRecordEtag": "1"}})"},
          {Kind::Changed,
           R"({"TableName": "TblMemoryInfo", "RowDetails": {"fqdd": "DIMM.A1",
               "Key": "k|A1", "OID": 42, "Speed": 2933, "Name": "x",
               "SingleRecordEtag": "2"}, "PropertiesChanged": {"Speed": 2933,
               "Name": "x", "SingleRecordEtag": "2"}})"},
          {Kind::Removed,
           R"({"TableName": "TblMemoryInfo", "RowDetails": {"Key": "k|A1",
               "OID": 42}})"},
          {Kind::Changed,
           R"({"TableName": "TblMemoryInfo", "RowDetails": {"OID": 42},
               "PropertiesChanged": {"Speed": 1}})"}},
         "TIME TblMemoryInfo 42 Added k|A1\n"
         "TIME TblMemoryInfo 42 Changed k|A1: Speed 2400 -> 2933,"
         " Name null -> \"x\"\n"
         "TIME TblMemoryInfo 42 Removed k|A1\n"
         "TIME TblMemoryInfo 42 Changed: Speed -> 1\n"},

        {"the signal's own old values go first",
         {{Kind::Added, R"({"TableName": "A", "RowDetails": {"OID": -5, "v": 1,
                            "hdr_DOT_fqdd": "NIC.1"}})"},
          {Kind::Changed, R"({"TableName": "A", "RowDetails": {"OID": -5},
                              "PropertiesChanged": {"v": 3},
                              "PreviousPropertyValues": {"v": 2}})"}},
         "TIME A -5 Added NIC.1\n"
         "TIME A -5 Changed: v 2 -> 3\n"},

        {"array elements by their index; a longer array; reals",
         {{Kind::Added,
           R"({"TableName": "T", "RowDetails": {"OID": 1, "f": 21.299999237060547,
               "a": [{"ARR_INDEX": 0, "VAL": 5}, {"ARR_INDEX": 1, "VAL": 6}],
               "r": [{"ARR_INDEX": 2, "avg": 1, "peak": 2}], "n": [1]}})"},
          {Kind::Changed,
           R"({"TableName": "T", "RowDetails": {"OID": 1,
               "l": [{"ARR_INDEX": 0}, {"ARR_INDEX": 1}]},
               "PropertiesChanged": {"f": 1e300, "a": [{"ARR_INDEX": 1, "VAL": 9},
               {"ARR_INDEX": 4, "VAL": 1}],
               "r": [{"ARR_INDEX": 2, "avg": 3, "peak": 4}], "l": [],
               "n": [2]}})"}},
         "TIME T 1 Added\n"
         "TIME T 1 Changed: f 21.3 -> 1e+300, a[1] 6 -> 9, a[4] -> 1,"
         " r[2] {\"avg\":1,\"peak\":2} -> {\"avg\":3,\"peak\":4},"
         " l now has 2 elements, n [1] -> [2]\n"},

        {"no text reaches the terminal's control functions",
         {{Kind::Added,
           "{\"TableName\": \"T\\u001b[2J\", \"RowDetails\": "
           "{\"OID\": 1, \"Key\": \"a\\nb\\u007f\\u009b\u00e4\"}}"}},
         "TIME T\\u001b[2J 1 Added a\\u000ab\\u007f\\u009b\u00e4\n"},

        {"malformed texts, and the next signal is unaffected",
         {{Kind::Added, "{"},
          {Kind::Added, "[]"},
          {Kind::Added, R"({"TableName": "T", "RowDetails": {"OID": "1"}})"},
          {Kind::Changed, R"({"TableName": "T", "RowDetails": {"OID": 1}})"},
          {Kind::Removed, R"({"TableName": "T", "RowDetails": {"OID": 1}})"}},
         "! malformed Added signal: string or '}' expected near end of file\n"
         "! malformed Added signal: no TableName, or no RowDetails with an"
         " OID\n"
         "! malformed Added signal: no TableName, or no RowDetails with an"
         " OID\n"
         "! malformed Changed signal: no PropertiesChanged\n"
         "TIME T 1 Removed\n"},
    };
    for (const auto &item : cases)
    {
        EXPECT_EQ(Watched({}, item.signals), item.expected) << item.what;
    }
}

TEST(Watch, TellsChangesToPrograms)
{
    EXPECT_EQ(
        Watched(
            {.json = true, .colour = false, .table = "T"},
            {{Kind::Added, R"({"TableName": "T", "RowDetails": {"OID": 1,
                               "SingleRecordEtag": "1", "v": 0.5}})"},
             {Kind::Added, R"({"TableName": "U", "RowDetails": {"OID": 2}})"},
             {Kind::Changed, R"({"TableName": "T", "RowDetails": {"OID": 1,
                                 "SingleRecordEtag": "2", "v": null},
                                 "PropertiesChanged": {"SingleRecordEtag": "2",
                                 "v": null, "w": "\u001b"}})"},
             {Kind::Removed,
              R"({"TableName": "T", "RowDetails": {"OID": 1}})"}}),
        R"({"kind": "Added", "table": "T", "oid": 1, "row": {"OID": 1, )"
        R"("SingleRecordEtag": "1", "v": 0.5}})"
        "\n"
        R"({"kind": "Changed", "table": "T", "oid": 1, "row": {"OID": 1, )"
        R"("SingleRecordEtag": "2", "v": null}, "changed": )"
        R"({"SingleRecordEtag": "2", "v": null, "w": "\u001B"}, )"
        R"("previous": {"SingleRecordEtag": "1", "v": 0.5}})"
        "\n"
        R"({"kind": "Removed", "table": "T", "oid": 1, "row": {"OID": 1}})"
        "\n");
}

TEST(Watch, ShortensLongValuesBetweenCharacters)
{
    // The quote and 100 bytes end inside a character.
    std::string text;
    for (int i = 0; i < 60; ++i)
    {
        text += "\u00e4";
    }
    const std::string signal =
        R"({"TableName": "T", "RowDetails": {"OID": 1}, )"
        R"("PropertiesChanged": {"v": ")" +
        text + R"("}})";
    EXPECT_EQ(Watched({}, {{Kind::Changed, signal.c_str()}}),
              "TIME T 1 Changed: v -> \"" + text.substr(0, 98) + "...\n");
}

TEST(Watch, KeepsTheRowsUsedLast)
{
    RowCache cache(2);
    const auto knows = [&](Kind kind, int64_t oid)
    {
        std::string error;
        const std::string text =
            R"({"TableName": "T", "RowDetails": {"OID": )" +
            std::to_string(oid) +
            R"(, "v": 1}, "PropertiesChanged": {"v": 1}})";
        auto change = ParseChange(kind, text.c_str(), &error);
        cache.Complete(*change);
        return json_object_size(change->previous.get()) == 1;
    };
    // 3 drops 2, and 2 drops 3.
    std::string known;
    for (const int oid : {1, 2, 1, 3, 1, 2, 3})
    {
        known += knows(Kind::Changed, oid) ? '+' : '-';
    }
    EXPECT_EQ(known, "--+-+--");
    EXPECT_TRUE(knows(Kind::Removed, 3));
    EXPECT_FALSE(knows(Kind::Changed, 3));
}

// The records as "table rowid operation", and "gap" behind those of the bytes
// that held the beginning of one.
std::string Parsed(PipeParser &parser, std::string_view bytes)
{
    const PipeParser::Result result = parser.Feed(bytes);
    std::string text;
    for (const PipeRecord &record : result.records)
    {
        text += record.table + ' ' + std::to_string(record.rowid) + ' ' +
                std::to_string(record.operation) + '\n';
    }
    for (size_t i = 0; i < result.gaps; ++i)
    {
        text += "gap\n";
    }
    return text;
}

TEST(Watch, FindsRecordsOnThePipe)
{
    const std::string tooLong(5000, 'x');
    const struct
    {
        const char *what;
        std::string bytes;
        const char *expected;
    } cases[] = {
        {"one", "||DMLiveObjectDatabase.db|TblProbeObj|17|23||",
         "TblProbeObj 17 23\n"},
        {"without anything between them",
         "||d|T|1|18||||d|U|9223372036854775807|9||||d|T|0|9||",
         "T 1 18\nU 9223372036854775807 9\nT 0 9\n"},
        {"cut off before its end", "||d|T|1|1||d|U|2|18||", "U 2 18\ngap\n"},
        {"cut off between fields", "||d|T|||d|U|2|18||", "U 2 18\ngap\n"},
        {"cut off in its end, which takes the next one's beginning",
         "||d|T|1|18|||d|U|2|18||||d|V|3|18||", "T 1 18\nV 3 18\ngap\n"},
        {"begun in the middle", "T|1|18||||d|U|2|18||", "U 2 18\ngap\n"},
        {"bytes in between", "||d|T|1|18||xy||d|U|2|18||",
         "T 1 18\nU 2 18\ngap\n"},
        {"two gaps", "x||d|T|1|18||y||d|U|2|18||",
         "T 1 18\nU 2 18\ngap\ngap\n"},
        {"several bad ones are one gap",
         "||d|T|x|18||||d|T|1|17||||d|T|-1|18||||d|T|1|18|1||||d||1|18||"
         "||d|T|99999999999999999999|18||||d|T |1|18||||d|U|2|18||",
         "U 2 18\ngap\n"},
        {"longer than any record", "||d|" + tooLong + "||||d|U|2|18||",
         "U 2 18\ngap\n"},
        {"only bars", "|||||||d|U|2|18||", "U 2 18\ngap\n"},
    };
    for (const auto &item : cases)
    {
        PipeParser whole;
        EXPECT_EQ(Parsed(whole, item.bytes), item.expected) << item.what;

        // The same when every read ends after one byte, but for the order of
        // gaps and records.
        PipeParser split;
        std::string text;
        std::string gaps;
        for (const char &byte : item.bytes)
        {
            const std::string part = Parsed(split, {&byte, 1});
            (part == "gap\n" ? gaps : text) += part;
        }
        EXPECT_EQ(text + gaps, item.expected) << item.what << ", split";
    }
}

TEST(Watch, KeepsNothingOfAnEndlessRecord)
{
    PipeParser parser;
    std::string text = Parsed(parser, "||d|");
    for (int i = 0; i < 1000; ++i)
    {
        text += Parsed(parser, std::string(50, 'x'));
    }
    EXPECT_EQ(text, "gap\n");
    EXPECT_EQ(Parsed(parser, "||||d|U|2|18||"), "U 2 18\n");
}

TEST(Watch, TellsRecordsToPeopleAndPrograms)
{
    constexpr std::string_view kBytes =
        "||d|T|1|18||||d|U|2|18||||d|T|2|23||||d|T|0|9||?";
    Watcher people({.json = false, .colour = false, .table = "T"});
    EXPECT_EQ(Printed(people.OnPipe(kBytes, kNow)),
              "TIME pipe T row 1 insert\n"
              "TIME pipe T row 2 update\n"
              "TIME pipe T row 0 delete\n"
              "! malformed record on the pipe, going on with the next\n");
    Watcher programs({.json = true, .colour = false, .table = "U"});
    EXPECT_EQ(Printed(programs.OnPipe(kBytes, kNow)),
              R"({"kind": "Pipe", "table": "U", "rowid": 2, )"
              R"("operation": "insert"})"
              "\n! malformed record on the pipe, going on with the next\n");
}

} // namespace
} // namespace qdb::watch
