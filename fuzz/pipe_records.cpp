// The reader of the telemetry pipe. An input is the size of the pieces in which
// the bytes come, and the bytes.
#include "fuzz/support.h"
#include "tools/qdb/pipe_parser.h"

#include <string_view>

namespace qdb::fuzz
{
namespace
{

using tool::PipeParser;
using tool::PipeRecord;

std::string_view TextOf(Bytes bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

std::string Print(const PipeRecord &record)
{
    return record.table + '|' + std::to_string(record.rowid) + '|' +
           std::to_string(record.operation);
}

std::string Print(const PipeParser::Result &result)
{
    std::string text = std::to_string(result.gaps) + " gaps";
    for (const PipeRecord &record : result.records)
    {
        text += ' ' + Print(record);
    }
    return text;
}

PipeParser::Result FeedPieces(PipeParser *pParser, Input input, size_t size)
{
    PipeParser::Result all;
    while (!input.IsEmpty())
    {
        PipeParser::Result some = pParser->Feed(TextOf(input.Take(size)));
        all.gaps += some.gaps;
        std::ranges::move(some.records, std::back_inserter(all.records));
    }
    return all;
}

// Whatever came before, a record is lost at most where the stream broke.
void RequireWayBack(PipeParser *pParser)
{
    constexpr std::string_view kRecord = "||d|TblFanExtObj|7|23||";
    // Its bars may have ended the one before, and nothing else.
    Require(!pParser->Feed(kRecord).records.empty(), "a record");
    const PipeParser::Result result = pParser->Feed(kRecord);
    Require(!result.records.empty() &&
                Print(result.records.back()) == "TblFanExtObj|7|23",
            "the way back to the next record");
}

} // namespace

void RunPipeRecords(Bytes bytes)
{
    // What is longer than a record can be is dropped where a piece ends.
    constexpr size_t kLongestAlike = 4096;
    Input input(bytes);
    const size_t size = input.Byte() + size_t{1};
    PipeParser parser;
    PipeParser inPieces;
    const std::string whole = Print(FeedPieces(&parser, input, SIZE_MAX));
    const std::string pieces = Print(FeedPieces(&inPieces, input, size));
    Require(bytes.size() > kLongestAlike || whole == pieces,
            whole + "\nisn't\n" + pieces);
    RequireWayBack(&parser);
    RequireWayBack(&inPieces);
}

} // namespace qdb::fuzz
