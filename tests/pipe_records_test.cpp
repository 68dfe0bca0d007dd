// How the records of the telemetry pipe are found among its bytes.
#include "tools/qdb/pipe_parser.h"
#include "tools/qdb/watcher.h"

#include <gtest/gtest.h>

#include <string>

namespace qdb::tool
{
namespace
{

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

TEST(PipeRecords, FindsRecordsOnThePipe)
{
    const std::string tooLong(5000, 'x');
    const struct
    {
        const char *what;
        std::string bytes;
        const char *expected;
    } cases[] = {
        // clang-format off
        {"one", "||DMLiveObjectDatabase.db|TblProbeObj|17|23||", "TblProbeObj 17 23\n"},
        {"without anything between them", "||d|T|1|18||||d|U|9223372036854775807|9||||d|T|0|9||",
         "T 1 18\nU 9223372036854775807 9\nT 0 9\n"},
        {"cut off before its end", "||d|T|1|1||d|U|2|18||", "U 2 18\ngap\n"},
        {"cut off between fields", "||d|T|||d|U|2|18||", "U 2 18\ngap\n"},
        {"cut off in its end, which takes the next one's beginning", "||d|T|1|18|||d|U|2|18||||d|V|3|18||",
         "T 1 18\nV 3 18\ngap\n"},
        {"begun in the middle", "T|1|18||||d|U|2|18||", "U 2 18\ngap\n"},
        {"bytes in between", "||d|T|1|18||xy||d|U|2|18||", "T 1 18\nU 2 18\ngap\n"},
        {"two gaps", "x||d|T|1|18||y||d|U|2|18||", "T 1 18\nU 2 18\ngap\ngap\n"},
        {"several bad ones are one gap",
         "||d|T|x|18||||d|T|1|17||||d|T|-1|18||||d|T|1|18|1||||d||1|18||"
         "||d|T|99999999999999999999|18||||d|T |1|18||||d|U|2|18||",
         "U 2 18\ngap\n"},
        {"longer than any record", "||d|" + tooLong + "||||d|U|2|18||", "U 2 18\ngap\n"},
        {"only bars", "|||||||d|U|2|18||", "U 2 18\ngap\n"},
        // clang-format on
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

TEST(PipeRecords, KeepsNothingOfAnEndlessRecord)
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

TEST(PipeRecords, AreToldToPeopleAndPrograms)
{
    constexpr std::string_view kBytes =
        "||d|T|1|18||||d|U|2|18||||d|T|2|23||||d|T|0|9||?";
    WatchOptions options;
    options.tables = {"T"};
    Watcher people(options);
    people.OnPipe(kBytes, "TIME");
    EXPECT_EQ(people.TakeLines(), "TIME pipe T row 1 insert\n"
                                  "TIME pipe T row 2 update\n"
                                  "TIME pipe T row 0 delete\n");
    EXPECT_EQ(people.TakeNotes(),
              "malformed record on the pipe, going on with the next\n");
    options.isJson = true;
    options.tables = {"U"};
    Watcher programs(options);
    programs.OnPipe(kBytes, "TIME");
    EXPECT_EQ(programs.TakeLines(),
              R"({"kind": "Pipe", "table": "U", "rowid": 2, )"
              R"("operation": "insert"})"
              "\n");
}

} // namespace
} // namespace qdb::tool
