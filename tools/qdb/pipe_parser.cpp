// Takes records from the front of the bytes that came, one step at a time. What
// is left behind a step begins where the next record may.
#include "tools/qdb/pipe_parser.h"

#include <array>
#include <charconv>
#include <optional>

namespace qdb::tool
{
namespace
{

constexpr std::string_view kDelimiter = "||";

// The service formats a record into a buffer of this size.
constexpr size_t kLongestRecord = 4096;

constexpr std::string_view kNameCharacters = "abcdefghijklmnopqrstuvwxyz"
                                             "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                             "0123456789_";

template <typename Integer>
bool ParseWhole(std::string_view text, Integer *pValue)
{
    const char *end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, *pValue);
    return error == std::errc() && last == end;
}

bool IsOperation(int operation)
{
    return operation == kInsert || operation == kUpdate || operation == kDelete;
}

// The text between the delimiters; none when it isn't a record's.
std::optional<PipeRecord> ParseContent(std::string_view content)
{
    std::array<std::string_view, 4> fields;
    for (size_t i = 0; i < fields.size(); ++i)
    {
        const bool last = i + 1 == fields.size();
        const size_t bar = last ? content.size() : content.find('|');
        if (bar == std::string_view::npos)
        {
            return std::nullopt;
        }
        fields[i] = content.substr(0, bar);
        content.remove_prefix(last ? bar : bar + 1);
    }
    const auto &[database, table, rowid, operation] = fields;
    PipeRecord record;
    record.table = table;
    if (database.empty() || table.empty() ||
        table.find_first_not_of(kNameCharacters) != std::string_view::npos ||
        !ParseWhole(rowid, &record.rowid) || record.rowid < 0 ||
        !ParseWhole(operation, &record.operation) ||
        !IsOperation(record.operation))
    {
        return std::nullopt;
    }
    return record;
}

} // namespace

PipeParser::Result PipeParser::Feed(std::string_view bytes)
{
    Result result;
    pending_ += bytes;
    while (Step(result))
    {
    }
    return result;
}

// Drops bytes that belong to no record.
void PipeParser::Skip(size_t count, Result &result)
{
    if (count > 0)
    {
        result.gaps += inGap_ ? 0 : 1;
        inGap_ = true;
        pending_.erase(0, count);
    }
}

// Takes one record, or what is none, from the front; false when that needs
// more bytes.
bool PipeParser::Step(Result &result)
{
    constexpr size_t kNone = std::string::npos;
    const size_t open = pending_.find(kDelimiter);
    if (open == kNone)
    {
        // The last byte may be the first half of a delimiter.
        Skip(pending_.size() - (pending_.ends_with('|') ? 1 : 0), result);
        return false;
    }

    // Where a record broke off, its end and the next one's beginning run
    // together; the last two bars of a run are the ones that begin a record.
    const size_t content = pending_.find_first_not_of('|', open);
    const size_t runEnd = content == kNone ? pending_.size() : content;
    Skip(runEnd - kDelimiter.size(), result);
    if (content == kNone)
    {
        return false;
    }

    const size_t close = pending_.find(kDelimiter, kDelimiter.size());
    if (close == kNone)
    {
        Skip(pending_.size() > kLongestRecord ? pending_.size() - 1 : 0,
             result);
        return false;
    }
    const auto record = ParseContent(std::string_view(pending_).substr(
        kDelimiter.size(), close - kDelimiter.size()));
    if (!record)
    {
        // The bars may be the beginning of the next record.
        Skip(close, result);
        return true;
    }
    result.records.push_back(*record);
    inGap_ = false;
    pending_.erase(0, close + kDelimiter.size());
    return true;
}

} // namespace qdb::tool
