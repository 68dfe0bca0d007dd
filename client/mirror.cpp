// The handle: bus, database and clock behind one descriptor, and the order of
// things: subscribed first, then readiness, then the rows, then what came
// meanwhile.

#include "client/change_bus.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>
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

class Descriptor
{
  public:
    explicit Descriptor(int fd) : fd_(fd)
    {
    }
    ~Descriptor()
    {
        if (fd_ >= 0)
        {
            close(fd_);
        }
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    operator int() const
    {
        return fd_;
    }

  private:
    int fd_;
};

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

using qdb::client::ChangeBus;
using qdb::client::Counts;
using qdb::client::Database;
using qdb::client::Descriptor;
using qdb::client::Follower;
using qdb::client::Stamp;
using qdb::client::Table;

struct qdb_mirror
{
    explicit qdb_mirror(const qdb_options &given);

    int Process();
    bool OpenDatabase(); // for a reader
    int FindTable(const char *name, const Table **pTable);
    int Give(const Table &table, const std::vector<int64_t> &oids,
             qdb_row_callback callback, void *user);

    qdb_options options;
    Database database;
    ChangeBus bus;
    Follower follower;
    Descriptor epoll;
    Descriptor timer;
    Descriptor wake;
    std::atomic<bool> isStopped = false;
    std::vector<const char *> tables;

  private:
    void Follow(bool isTick);
    void FollowReady(bool isTick);
    bool IsServed(bool isTick);
    bool Scan(Counts *pCounts);
    void SetReady(bool isNow);
    void Watch(int fd, uint32_t events);
    void Arm();

    bool isReady_ = false;
    int reason_ = 0;      // for the next scan; 0: none
    int64_t version_ = 0; // of the database when it was last scanned; 0: never
    int64_t seen_ = 0;    // of the database at the last look
    int quiet_ = -1;      // looks at which it was the same; -1: none yet
    bool hasStirred_ = false; // since the service was last here
    int watched_ = -1;        // the bus's descriptor in the epoll set
    uint64_t nextTick_ = 0;
};

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

// The rows of these OIDs, some at a time.
int qdb_mirror::Give(const Table &table, const std::vector<int64_t> &oids,
                     qdb_row_callback callback, void *user)
{
    int count = 0;
    std::vector<qdb_row> rows;
    for (size_t at = 0; at < oids.size(); at += Database::kTogether)
    {
        const std::span<const int64_t> some(
            oids.data() + at, std::min(Database::kTogether, oids.size() - at));
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
    const uint64_t now = qdb::client::NowMicroseconds();
    const bool isTick = now >= nextTick_;
    nextTick_ = isTick ? now + qdb::client::kTickMicroseconds : nextTick_;
    bool isMore = false;
    if ((bus.Descriptor() >= 0 || isTick) && bus.Connect())
    {
        bus.Process(qdb::client::kMostMessages, &isMore);
    }
    Follow(isTick);
    Arm();
    return isMore ? 1 : 0;
}

void qdb_mirror::SetReady(bool isNow)
{
    if (isReady_ != isNow)
    {
        isReady_ = isNow;
        if (options.ready != nullptr)
        {
            options.ready(options.user, isNow ? 1 : 0);
        }
    }
}

bool qdb_mirror::Scan(Counts *pCounts)
{
    const int64_t version = database.Version();
    const bool isWhole = follower.Scan(pCounts) == 0;
    version_ = isWhole ? version : 0;
    return isWhole;
}

// The rows are of a service that has filled them. Best known of one that has
// spoken, since it sends no signal before; else by the attribute that it sets,
// which not every configuration manager tells it to mirror, or when nothing is
// written any more.
bool qdb_mirror::IsServed(bool isTick)
{
    constexpr int kQuietTicks = 2;
    if (bus.IsServiceHere() || (isReady_ && !bus.IsServiceGone()))
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

void qdb_mirror::Follow(bool isTick)
{
    const int reason = bus.TakeReason();
    reason_ = reason == 0 ? reason_ : reason;
    bool isNew = false;
    const bool hasDatabase = database.Open(&isNew) == 0;
    if (isNew)
    {
        quiet_ = -1;
        hasStirred_ = true;
        reason_ = version_ == 0 ? reason_ : int{QDB_NEW_DATABASE};
    }
    if (bus.IsSubscribed() && hasDatabase && IsServed(isTick))
    {
        return FollowReady(isTick);
    }
    if (isReady_)
    {
        quiet_ = -1;
        hasStirred_ = false;
        reason_ = reason_ == 0 && bus.IsServiceGone() ? int{QDB_NEW_SERVICE}
                                                      : reason_;
    }
    SetReady(false);
}

void qdb_mirror::FollowReady(bool isTick)
{
    const bool isFirst = !isReady_;
    if (reason_ != 0)
    {
        follower.Doubt(reason_ != QDB_LOST_SIGNALS);
    }
    if (!isFirst && follower.Apply(bus.TakeSignals()) != 0)
    {
        version_ = 0;
    }
    const bool isSilent = isTick && database.Version() != version_;
    Counts counts;
    if (isFirst || reason_ != 0 || isSilent)
    {
        const bool isWhole = Scan(&counts);
        if (isFirst && !isWhole)
        {
            return; // again at the next tick
        }
    }
    const bool isAny = counts.added + counts.changed + counts.removed > 0;
    const int reason = reason_ == 0 && isSilent && !isFirst && isAny
                           ? QDB_SILENT_CHANGE
                           : reason_;
    if (reason != 0 && options.resynced != nullptr)
    {
        options.resynced(options.user, static_cast<qdb_reason>(reason),
                         counts.added, counts.changed, counts.removed);
    }
    reason_ = 0;
    SetReady(true);
}

// In a callback the tables have to stay what they are.
bool qdb_mirror::OpenDatabase()
{
    bool isNew = false;
    const bool isThere = follower.IsTelling() || database.Open(&isNew) == 0;
    if (isNew && version_ != 0)
    {
        reason_ = QDB_NEW_DATABASE;
    }
    return isThere && !database.Tables().empty();
}

// 0, -ENODATA or -ENOENT.
int qdb_mirror::FindTable(const char *name, const Table **pTable)
{
    if (!OpenDatabase())
    {
        return -ENODATA;
    }
    *pTable = database.FindTable(name);
    return *pTable == nullptr ? -ENOENT : 0;
}

extern "C"
{

    int qdb_mirror_open(const qdb_options *options, qdb_mirror **mirror)
    {
        qdb_options copy = QDB_OPTIONS_INIT;
        if (options == nullptr || options->size < offsetof(qdb_options, user) ||
            options->size > sizeof(copy))
        {
            return -EINVAL;
        }
        std::memcpy(&copy, options, options->size);
        copy.size = sizeof(copy);
        auto *made = new (std::nothrow) qdb_mirror(copy);
        if (made == nullptr)
        {
            return -ENOMEM;
        }
        if (made->epoll < 0 || made->timer < 0 || made->wake < 0)
        {
            delete made;
            return -EMFILE;
        }
        *mirror = made;
        return 0;
    }

    void qdb_mirror_close(qdb_mirror *mirror)
    {
        delete mirror;
    }

    int qdb_mirror_fd(const qdb_mirror *mirror)
    {
        return mirror->epoll;
    }

    int qdb_mirror_process(qdb_mirror *mirror)
    {
        return mirror->Process();
    }

    int qdb_mirror_run(qdb_mirror *mirror)
    {
        while (!mirror->isStopped)
        {
            if (mirror->Process() == 0 && !mirror->isStopped)
            {
                pollfd entry = {mirror->epoll, POLLIN, 0};
                if (poll(&entry, 1, -1) < 0 && errno != EINTR)
                {
                    return -errno;
                }
            }
        }
        mirror->isStopped = false;
        return 0;
    }

    const char *const *qdb_tables(qdb_mirror *mirror)
    {
        if (!mirror->OpenDatabase())
        {
            return nullptr;
        }
        mirror->tables.clear();
        for (const Table &table : mirror->database.Tables())
        {
            mirror->tables.push_back(table.name.c_str());
        }
        mirror->tables.push_back(nullptr);
        return mirror->tables.data();
    }

    int qdb_mirror_get(qdb_mirror *mirror, const char *table, int64_t oid,
                       qdb_row_callback callback, void *user)
    {
        const Table *found = nullptr;
        const int result = mirror->FindTable(table, &found);
        return result != 0 ? result
                           : mirror->Give(*found, {oid}, callback, user);
    }

    int qdb_mirror_get_by_key(qdb_mirror *mirror, const char *table,
                              const char *key, qdb_row_callback callback,
                              void *user)
    {
        const Table *found = nullptr;
        std::vector<int64_t> oids;
        int result = mirror->FindTable(table, &found);
        result =
            result != 0 ? result : mirror->database.FindKey(*found, key, &oids);
        return result != 0 ? result
                           : mirror->Give(*found, oids, callback, user);
    }

    int qdb_mirror_each(qdb_mirror *mirror, const char *table,
                        qdb_row_callback callback, void *user)
    {
        const Table *found = nullptr;
        std::vector<Stamp> stamps;
        int result = mirror->FindTable(table, &found);
        result =
            result != 0 ? result : mirror->database.Stamps(*found, &stamps);
        std::vector<int64_t> oids;
        std::ranges::transform(stamps, std::back_inserter(oids), &Stamp::oid);
        return result != 0 ? result
                           : mirror->Give(*found, oids, callback, user);
    }

    void qdb_mirror_stop(qdb_mirror *mirror)
    {
        const uint64_t one = 1;
        mirror->isStopped = true;
        static_cast<void>(!write(mirror->wake, &one, sizeof(one)));
    }
}
