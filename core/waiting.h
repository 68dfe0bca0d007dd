// Waiting: what a thread may not do while it has the turn at the database
// (db/turn.h), how long it did it, and whether it came back.
//
// Whoever has the turn holds up everybody who wants the database, so it waits
// for nothing but SQLite. It may take a LeafLock (core/lock.h), whose holders
// wait for nothing at all; it may write a log line and a telemetry record,
// which never wait for their reader. All else that can take its time stands in
// a Wait: calls of the platform about an object, sleeps, a stalled bus.
#pragma once

#include <atomic>
#include <cassert>
#include <cstdint>
#include <ctime>

namespace qdb
{

// Written by db/turn.cpp alone: whether the calling thread has the turn, and
// how long it had it so far, without the present one.
extern constinit thread_local bool tHasTurn;
extern constinit thread_local int64_t tTurnNanoseconds;

// Holds the calling thread to the rule, in builds that have assertions.
inline void AssertMayWait()
{
    assert(!tHasTurn && "waits with the turn at the database in hand");
}

inline int64_t NowNanoseconds()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

// Of 64 bits on every platform; see meson.build.
static_assert(sizeof(time_t) == sizeof(int64_t));

inline timespec ToTimespec(int64_t nanoseconds)
{
    return {static_cast<time_t>(nanoseconds / 1000000000),
            static_cast<long>(nanoseconds % 1000000000)};
}

// Progress, counted at a stop alone: what makes no note for two seconds once a
// stop has been requested counts as hanging (service/watch.h). True while
// somebody counts; until then a note costs one read.
extern std::atomic<bool> gProgressCounts;
extern std::atomic<unsigned> gProgress;

// Belongs behind each step of a statement and each record; a Wait makes its
// own. Takes no lock; may be called in any state.
inline void NoteProgress()
{
    if (gProgressCounts.load(std::memory_order_relaxed))
    {
        gProgress.fetch_add(1, std::memory_order_relaxed);
    }
}

// The time that the calling thread has spent in Waits so far.
extern constinit thread_local int64_t tWaitedNanoseconds;

// Stands around a sleep.
class Pause
{
  public:
    Pause() : since_(NowNanoseconds())
    {
        AssertMayWait();
    }
    ~Pause()
    {
        tWaitedNanoseconds += NowNanoseconds() - since_;
    }
    Pause(const Pause &) = delete;
    Pause &operator=(const Pause &) = delete;

  private:
    int64_t since_;
};

// Stands around whatever else may take its time, and might not come back.
class Wait : Pause
{
  public:
    Wait() = default;
    ~Wait()
    {
        NoteProgress();
    }
};

} // namespace qdb
