#include "client/mirror.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <span>
#include <utility>

namespace qdb::client
{
namespace
{

constexpr char kInstalled[] =
    "/var/run/quillondatabase/DMLiveObjectDatabase.db";
constexpr int kMostMessages = 256; // before the caller is let in
constexpr uint64_t kTickMicroseconds = 500000;

// Takes what a timer or an event descriptor has counted. Whether there was any.
bool Drain(int fd)
{
    uint64_t count = 0;
    return read(fd, &count, sizeof(count)) == sizeof(count);
}

std::set<std::string> NamesOf(const char *const *tables)
{
    std::set<std::string> names;
    for (; tables != nullptr && *tables != nullptr; ++tables)
    {
        names.insert(*tables);
    }
    return names;
}

uint64_t NowMicroseconds()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 +
           static_cast<uint64_t>(now.tv_nsec) / 1000;
}

} // namespace
} // namespace qdb::client

using qdb::client::Counts;
using qdb::client::Database;
using qdb::client::Table;

qdb_mirror::qdb_mirror(const qdb_options &given)
    : options(given),
      database(given.database == nullptr ? qdb::client::kInstalled
                                         : given.database,
               given.busy_ms),
      bus(given.bus == nullptr ? "" : given.bus),
      follower(options, qdb::client::NamesOf(given.tables), database),
      epoll(epoll_create1(EPOLL_CLOEXEC)),
      timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      wake(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK))
{
    Watch(timer, EPOLLIN);
    Watch(wake, EPOLLIN);
}

int qdb_mirror::Give(const Table &table, const std::vector<int64_t> &oids,
                     qdb_row_callback callback, void *user)
{
    int count = 0;
    std::vector<qdb_row> rows;
    for (size_t at = 0; at < oids.size(); at += Database::kTogether)
    {
        const std::span<const int64_t> some(
            oids.data() + at, std::min(Database::kTogether, oids.size() - at));
        // Where it goes on for long, short waits must not add up to a failure.
        database.BeginCall();
        if (const int result = database.Read(table, some, &rows))
        {
            return result;
        }
        for (const qdb_row &row : rows)
        {
            ++count;
            if (callback(user, &row) != 0)
            {
                return count;
            }
        }
    }
    return count;
}

void qdb_mirror::Watch(int fd, uint32_t events)
{
    epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    if (epoll_ctl(epoll, EPOLL_CTL_MOD, fd, &event) != 0)
    {
        epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
    }
}

// What the descriptor is readable for.
void qdb_mirror::Arm()
{
    // A descriptor that was closed has left the set by itself.
    watched_ = bus.Descriptor();
    if (watched_ >= 0)
    {
        Watch(watched_, bus.Events());
    }
    const uint64_t at = std::min(nextTick_, bus.Deadline());
    itimerspec when = {};
    when.it_value.tv_sec = static_cast<time_t>(at / 1000000);
    when.it_value.tv_nsec = static_cast<long>(at % 1000000 * 1000 + 1);
    timerfd_settime(timer, TFD_TIMER_ABSTIME, &when, nullptr);
}

int qdb_mirror::Process()
{
    qdb::client::Drain(timer);
    qdb::client::Drain(wake);
    database.BeginCall();
    const uint64_t now = qdb::client::NowMicroseconds();
    const bool isTick = now >= nextTick_;
    nextTick_ = isTick ? now + qdb::client::kTickMicroseconds : nextTick_;
    bool isMore = false;
    if ((bus.Descriptor() >= 0 || isTick) && bus.Connect())
    {
        bus.Process(qdb::client::kMostMessages, &isMore);
        if (isTick)
        {
            bus.CheckService();
        }
    }
    Follow(isTick, isMore);
    Arm();
    return isMore ? 1 : 0;
}

void qdb_mirror::SetState(qdb_state now)
{
    const bool isReady = now == QDB_READY;
    const bool wasReady = std::exchange(state, now) == QDB_READY;
    if (isReady != wasReady && options.ready != nullptr)
    {
        options.ready(options.user, isReady ? 1 : 0);
    }
}

// Of a mirror that can't be ready.
qdb_state qdb_mirror::FindState(int opened) const
{
    if (!bus.IsSubscribed())
    {
        return QDB_NO_BUS;
    }
    if (opened != 0)
    {
        return opened == -EBUSY ? QDB_BUSY : QDB_NO_DATABASE;
    }
    return bus.IsServiceGone() ? QDB_NO_SERVICE : QDB_FILLING;
}

// False when others hold the database: the rest is left to the next tick.
bool qdb_mirror::Scan(bool isTick)
{
    if (isCutShort_ && !isTick)
    {
        return false;
    }
    const int64_t version = database.Version();
    Counts counts;
    isCutShort_ = follower.Scan(&counts) != 0;
    told_.added += counts.added;
    told_.changed += counts.changed;
    told_.removed += counts.removed;
    ticksSinceScan_ = 0;
    version_ = isCutShort_ ? 0 : version;
    return !isCutShort_;
}

// The rows are of a service that has filled them. Best known of one that has
// spoken, since it sends no signal before; else by the attribute that it sets,
// which not every configuration manager tells it to mirror, or when nothing is
// written any more.
bool qdb_mirror::IsServed(bool isTick)
{
    constexpr int kQuietTicks = 2;
    if (bus.IsServiceHere() || (state == QDB_READY && !bus.IsServiceGone()))
    {
        return true;
    }
    if (!isTick && quiet_ >= 0)
    {
        return false;
    }
    const int64_t version = database.Version();
    hasStirred_ = hasStirred_ || version != seen_;
    quiet_ = version == seen_ ? quiet_ + 1 : 0;
    seen_ = version;
    const bool isQuiet = quiet_ >= kQuietTicks;
    if (bus.IsServiceGone() && hasStirred_ && isQuiet)
    {
        bus.ForgetService();
    }
    return !bus.IsServiceGone() &&
           (database.IsReady() || (isQuiet && !database.IsEmpty()));
}

void qdb_mirror::Follow(bool isTick, bool isMore)
{
    const int reason = bus.TakeReason();
    reason_ = reason == 0 ? reason_ : reason;
    bool isNew = false;
    const int opened = database.Open(&isNew);
    if (isNew)
    {
        quiet_ = -1;
        hasStirred_ = true;
        reason_ = version_ == 0 ? reason_ : int{QDB_NEW_DATABASE};
    }
    if (bus.IsSubscribed() && opened == 0 && IsServed(isTick))
    {
        return FollowReady(isTick, isMore);
    }
    if (state == QDB_READY)
    {
        quiet_ = -1;
        hasStirred_ = false;
        reason_ = reason_ == 0 && bus.IsServiceGone() ? int{QDB_NEW_SERVICE}
                                                      : reason_;
    }
    SetState(FindState(opened));
}

// Something has been written, and no signal of it seems to be on its way: none
// waits, and none has come since the last look, unless that was long ago.
bool qdb_mirror::MayBeSilent(bool isTick, bool isMore)
{
    constexpr int kMostTicks = 10;
    if (!isTick)
    {
        return false;
    }
    const bool isCalm = !std::exchange(hasHeard_, false);
    ++ticksSinceScan_;
    return !isMore && (isCalm || ticksSinceScan_ >= kMostTicks) &&
           database.Version() != version_;
}

void qdb_mirror::FollowReady(bool isTick, bool isMore)
{
    const bool isFirst = state != QDB_READY;
    if (reason_ != 0)
    {
        follower.Doubt(reason_ != QDB_LOST_SIGNALS);
    }
    const std::vector<qdb::client::RawSignal> signals = bus.TakeSignals();
    hasHeard_ = hasHeard_ || !signals.empty();
    if (!isFirst && follower.Apply(signals) != 0)
    {
        version_ = 0;
    }
    const bool isSilent = MayBeSilent(isTick, isMore);
    const bool isDue = isFirst || reason_ != 0 || isSilent || isCutShort_;
    if (isDue && !Scan(isTick))
    {
        return isFirst ? SetState(QDB_BUSY) : void();
    }
    const Counts counts = std::exchange(told_, {});
    const bool isAny = counts.added + counts.changed + counts.removed > 0;
    const int reason = reason_ == 0 && isDue && !isFirst && isAny
                           ? int{QDB_SILENT_CHANGE}
                           : reason_;
    if (reason != 0 && options.resynced != nullptr)
    {
        options.resynced(options.user, static_cast<qdb_reason>(reason),
                         counts.added, counts.changed, counts.removed);
    }
    reason_ = 0;
    SetState(QDB_READY);
}

// In a callback the tables have to stay what they are.
bool qdb_mirror::OpenDatabase()
{
    database.BeginCall();
    bool isNew = false;
    const bool isThere = follower.IsTelling() || database.Open(&isNew) == 0;
    if (isNew && version_ != 0)
    {
        reason_ = QDB_NEW_DATABASE;
    }
    return isThere && !database.Tables().empty();
}

int qdb_mirror::FindTable(const char *name, const Table **pTable)
{
    if (!OpenDatabase())
    {
        return -ENODATA;
    }
    *pTable = database.FindTable(name);
    return *pTable == nullptr ? -ENOENT : 0;
}
