#include "bench/follower.h"

#include "core/json.h"
#include "publish/bus_connection.h"

#include <malloc.h>
#include <poll.h>
#include <quillondb/client.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace qdb::bench
{
namespace
{

// What the child's callbacks are given.
struct Place
{
    Following &seen;
    const char *column;
};

void Count(Place &place, int64_t value)
{
    if (value == place.seen.value)
    {
        ++place.seen.count;
    }
}

void OnAdded(void *user, const qdb_row * /*row*/)
{
    ++static_cast<Place *>(user)->seen.rows;
}

void OnChanged(void *user, const qdb_change *change)
{
    auto &place = *static_cast<Place *>(user);
    const qdb_row *row = qdb_change_row(change);
    const size_t column = qdb_row_find(row, place.column);
    if (column < qdb_row_count(row))
    {
        Count(place, qdb_row_integer(row, column));
    }
}

int OnSignal(sd_bus_message *message, void *user, sd_bus_error * /*error*/)
{
    auto &place = *static_cast<Place *>(user);
    const char *text = nullptr;
    if (sd_bus_message_read(message, "s", &text) <= 0)
    {
        return 0;
    }
    const JsonPtr change(json_loads(text, 0, nullptr));
    const json_t *row = json_object_get(change.get(), "RowDetails");
    Count(place, json_integer_value(json_object_get(row, place.column)));
    return 0;
}

int64_t HeapInUse()
{
    const auto heap = mallinfo2();
    return static_cast<int64_t>(heap.uordblks + heap.hblkhd);
}

// What the first copy has cost.
void ReachReadiness(qdb_mirror *mirror, Following &seen)
{
    const int64_t before = HeapInUse();
    while (qdb_mirror_state(mirror) != QDB_READY)
    {
        const int64_t begin = Now();
        const int64_t processor = ProcessorTime(getpid());
        const int result = qdb_mirror_process(mirror);
        seen.processor += ProcessorTime(getpid()) - processor;
        seen.elapsed += Now() - begin;
        pollfd entry = {qdb_mirror_fd(mirror), POLLIN, 0};
        poll(&entry, 1, result == 0 ? -1 : 0);
    }
    seen.heap = HeapInUse() - before;
    seen.isReady = true;
}

} // namespace

int FollowByLibrary(Following &seen, const Followed &followed)
{
    Place place{seen, followed.column.c_str()};
    const char *const tables[] = {followed.table.c_str(), nullptr};
    qdb_options options = QDB_OPTIONS_INIT;
    options.database = followed.database.c_str();
    options.tables = followed.table.empty() ? nullptr : tables;
    options.user = &place;
    options.row_added = OnAdded;
    options.row_changed = OnChanged;
    qdb_mirror *mirror = nullptr;
    if (qdb_mirror_open(&options, &mirror) == 0)
    {
        ReachReadiness(mirror, seen);
        qdb_mirror_run(mirror);
    }
    return 1;
}

int FollowBySignals(Following &seen, const Followed &followed)
{
    Place place{seen, followed.column.c_str()};
    const std::string rule = std::string("type='signal',path='") + kSignalPath +
                             "',interface='" + kSignalInterface + "'";
    sd_bus *bus = nullptr;
    int result = sd_bus_open_system(&bus);
    if (result >= 0)
    {
        result = sd_bus_add_match(bus, nullptr, rule.c_str(), OnSignal, &place);
    }
    seen.isReady = result >= 0;
    while (result >= 0)
    {
        result = sd_bus_process(bus, nullptr);
        if (result == 0)
        {
            result = sd_bus_wait(bus, UINT64_MAX);
        }
    }
    return 1;
}

Follower::Follower(Body body, const Followed &followed)
    : process_(
          [&]
          {
              return body(*shared_, followed);
          })
{
    Await("a follower",
          [this]
          {
              return shared_->isReady.load();
          });
}

void Follower::Begin(int64_t value)
{
    shared_->count = 0;
    shared_->value = value;
    begin_ = ProcessorTime(process_.Id());
}

int64_t Follower::End(uint64_t count)
{
    Await("all changes at a follower",
          [&]
          {
              return shared_->count >= count;
          });
    if (shared_->count > count)
    {
        throw std::runtime_error("a follower was told of a change twice");
    }
    return ProcessorTime(process_.Id()) - begin_;
}

} // namespace qdb::bench
