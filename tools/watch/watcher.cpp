// Parse, filter, complete and render, in this order.
#include "tools/watch/watcher.h"

#include "tools/watch/render.h"
#include "tools/watch/text.h"

#include <utility>

namespace qdb::watch
{
namespace
{

// Rows of a few KiB each.
constexpr size_t kRowsKept = 8192;

} // namespace

Watcher::Watcher(Options options)
    : options_(std::move(options)), rows_(kRowsKept)
{
}

bool Watcher::Wanted(const std::string &table) const
{
    return options_.table.empty() || options_.table == table;
}

template <typename Event>
std::string Watcher::Line(const Event &event, std::string_view time) const
{
    return (options_.json ? ForPrograms(event)
                          : ForPeople(event, time, options_.colour)) +
           '\n';
}

Output Watcher::OnSignal(Kind kind, const char *text, std::string_view time)
{
    Output output;
    std::string error;
    std::optional<Change> change = ParseChange(kind, text, &error);
    if (!change)
    {
        output.errors.push_back(std::string("malformed ") + KindName(kind) +
                                " signal: " + Printable(error));
    }
    else if (Wanted(change->table))
    {
        rows_.Complete(*change);
        output.lines = Line(*change, time);
    }
    return output;
}

Output Watcher::OnPipe(std::string_view bytes, std::string_view time)
{
    Output output;
    const PipeParser::Result result = pipe_.Feed(bytes);
    for (const PipeRecord &record : result.records)
    {
        if (Wanted(record.table))
        {
            output.lines += Line(record, time);
        }
    }
    for (size_t i = 0; i < result.gaps; ++i)
    {
        output.errors.emplace_back(
            "malformed record on the pipe, going on with the next");
    }
    return output;
}

} // namespace qdb::watch
