#include "tools/qdb/watcher.h"

#include "tools/qdb/render.h"
#include "tools/qdb/value.h"

#include <iterator>

namespace qdb::tool
{
namespace
{

struct Reason
{
    qdb_reason value;
    const char *word;
    const char *text;
};
constexpr Reason kReasons[] = {
    {QDB_LOST_SIGNALS, "lost-signals", "signals were lost"},
    {QDB_NEW_SERVICE, "new-service", "the service is another one"},
    {QDB_NEW_DATABASE, "new-database", "the database is another one"},
    {QDB_NEW_BUS, "new-bus", "the bus was gone"},
    {QDB_SILENT_CHANGE, "silent-change", "rows changed without a signal"},
};
constexpr Reason kUnknown = {{}, "unknown", "for an unknown reason"};

const Reason &ReasonOf(qdb_reason value)
{
    for (const Reason &reason : kReasons)
    {
        if (reason.value == value)
        {
            return reason;
        }
    }
    return kUnknown;
}

// Fills the columns in which the rows differ.
void Compare(json_t *before, Change *pChange)
{
    const char *name;
    json_t *value;
    json_object_foreach(pChange->row.get(), name, value)
    {
        json_t *old = json_object_get(before, name);
        if (json_equal(old, value) != 1)
        {
            json_object_set(pChange->changed.get(), name, value);
            json_object_set(pChange->previous.get(), name, old);
        }
    }
}

} // namespace

Watcher::Watcher(WatchOptions options) : options_(std::move(options))
{
}

template <typename Event>
void Watcher::Tell(const Event &event, std::string_view time)
{
    lines_ += options_.isJson ? ForPrograms(event)
                              : ForPeople(event, time, options_.isColoured);
    lines_ += '\n';
}

void Watcher::OnRow(const std::string &table, int64_t oid,
                    const std::string &key, JsonPtr row, std::string_view time)
{
    Kept &kept = rows_[{table, oid}];
    Change change = {hasBegun_ ? Kind::Added : Kind::Present,
                     table,
                     oid,
                     key,
                     std::move(row),
                     JsonPtr(json_object()),
                     JsonPtr(json_object())};
    const JsonPtr before(json_loads(kept.json.c_str(), 0, nullptr));
    if (before)
    {
        change.kind = Kind::Changed;
        Compare(before.get(), &change);
    }
    const JsonText text(json_dumps(change.row.get(), JSON_COMPACT));
    kept = {key, text ? text.get() : ""};
    if (hasBegun_ || options_.isAll)
    {
        Tell(change, time);
    }
}

void Watcher::OnRemoved(const std::string &table, int64_t oid,
                        std::string_view time)
{
    const auto found = rows_.find({table, oid});
    if (found == rows_.end())
    {
        return;
    }
    Change change = {Kind::Removed, table, oid, found->second.key, {}, {}, {}};
    change.row.reset(json_loads(found->second.json.c_str(), 0, nullptr));
    rows_.erase(found);
    if (hasBegun_ || options_.isAll)
    {
        Tell(change, time);
    }
}

void Watcher::OnReady(bool isReady)
{
    hasBegun_ = hasBegun_ || isReady;
    if (options_.isJson)
    {
        lines_ +=
            isReady ? "{\"kind\": \"Ready\"}\n" : "{\"kind\": \"Away\"}\n";
    }
    // Whoever starts the tool can wait for this line: nothing that happens from
    // here on is missed.
    notes_ += isReady ? "watching\n" : "the service, bus or database is away\n";
}

void Watcher::OnResynced(qdb_reason reason, size_t added, size_t changed,
                         size_t removed, std::string_view time)
{
    const Reason &known = ReasonOf(reason);
    Tell(Resync{known.word, known.text, added, changed, removed}, time);
}

void Watcher::OnPipe(std::string_view bytes, std::string_view time)
{
    const PipeParser::Result result = pipe_.Feed(bytes);
    for (const PipeRecord &record : result.records)
    {
        if (options_.tables.empty() || options_.tables.contains(record.table))
        {
            Tell(record, time);
        }
    }
    for (size_t i = 0; i < result.gaps; ++i)
    {
        notes_ += "malformed record on the pipe, going on with the next\n";
    }
}

std::string Watcher::TakeLines()
{
    return std::exchange(lines_, {});
}

std::string Watcher::TakeNotes()
{
    return std::exchange(notes_, {});
}

} // namespace qdb::tool
