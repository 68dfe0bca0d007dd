// Counts who is at work, and lets in who is wanted.
//
// A worker's ways: outside -> in line [AwaitRecord, with a record in hand]
// -> at work [Enter] -> outside [Leave], or at once at work again on the next
// record. Those in line stand one behind the other at gLineMutex; the first of
// them sleeps on gLeft.
//
// Invariants:
// 1. Nobody waits for a place without a record, so that no record waits while
//    a place is free.
// 2. Who sleeps in line wakes up when somebody leaves, and when the first of
//    those at work counts as hanging: no record waits for a call that hangs.
// 3. What a record took counts only where it ended, and never more than a
//    multiple of what the others took.
#include "queues/admission.h"

#include "core/lock.h"
#include "core/state.h"
#include "core/statistics.h"
#include "core/threads.h"

#include <algorithm>
#include <limits>

namespace qdb
{
namespace
{

// A worker that takes longer than so many records hangs.
constexpr int64_t kManyRecords = 16;

// One record in so many is what a new one weighs.
constexpr int64_t kSmoothing = 8;

// A worker's place. Taken and left by its thread alone; the times are in
// nanoseconds.
struct Seat
{
    std::atomic<bool> taken = false;
    std::atomic<int64_t> since = 0; // of the record at work; 0: not admitted

    // For the thread alone: what its clocks showed at `since`.
    int64_t waitedBefore = 0;
    int64_t turnBefore = 0;
};

Seat gSeats[kWorkerCount];
constinit thread_local Seat *tSeat = nullptr;

// Smoothed, of recent records. Two that end at once may lose one of theirs.
struct Smoothed
{
    std::atomic<int64_t> value;

    void Add(int64_t sample)
    {
        const int64_t now = value.load(std::memory_order_relaxed);
        value.store(now + (sample - now) / kSmoothing,
                    std::memory_order_relaxed);
    }
};

Smoothed gWhole = {1000000};
Smoothed gWaits = {0};
Smoothed gTurn = {50000};

pthread_mutex_t gLineMutex = PTHREAD_MUTEX_INITIALIZER; // held by the next
pthread_mutex_t gLeftMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gLeft = PTHREAD_COND_INITIALIZER;

// How many workers are to be at work.
int Wanted()
{
    // All, since each has a stop record to take.
    if (StopRequested())
    {
        return kWorkerCount;
    }
    // By half turns, since a record that waits is kept about as long again by
    // what it does beside both, and by each time that its thread has to be
    // woken for. One that doesn't wait hardly leaves the database idle.
    const int64_t half = std::max<int64_t>(gTurn.value / 2, 1);
    const int64_t wanted = 1 + (gWaits.value + half / 2) / half;
    return static_cast<int>(std::min<int64_t>(wanted, kWorkerCount));
}

// Who is at work: those that don't hang, and when the first of them will.
struct AtWork
{
    int count = 0;
    int64_t firstHangsAt = std::numeric_limits<int64_t>::max();
};

AtWork CountAtWork(int64_t now)
{
    // Measured by what records take just now: with a platform that takes 5 ms a
    // call, 50 ms are nothing strange.
    const int64_t limit = kManyRecords * gWhole.value;
    AtWork atWork;
    for (const Seat &seat : gSeats)
    {
        const int64_t since = seat.since;
        if (since != 0 && now - since < limit)
        {
            ++atWork.count;
            atWork.firstHangsAt = std::min(atWork.firstHangsAt, since + limit);
        }
    }
    return atWork;
}

void Begin(int64_t now)
{
    tSeat->waitedBefore = tWaitedNanoseconds;
    tSeat->turnBefore = tTurnNanoseconds;
    tSeat->since = now;
}

// One record that hung, or met a busy database, isn't to decide for many
// (invariant 3). The first records of all are measured against the guesses that
// the values begin with.
void NoteRecord(int64_t now)
{
    const int64_t whole = now - tSeat->since;
    const int64_t turn = tTurnNanoseconds - tSeat->turnBefore;
    const int64_t waited = tWaitedNanoseconds - tSeat->waitedBefore;
    gWhole.Add(std::min(whole, kManyRecords * gWhole.value));
    gTurn.Add(std::min(turn, kManyRecords * std::max<int64_t>(gTurn.value, 1)));
    // More than would let everybody in is no news, and takes long to forget.
    gWaits.Add(std::min(waited, 2 * kWorkerCount * gTurn.value));
}

void Enter()
{
    // One at a time counts and enters, so that no two take the same place.
    const MutexLock line(gLineMutex);
    const LeafLock lock(gLeftMutex);
    int64_t now = NowNanoseconds();
    AtWork atWork = CountAtWork(now);
    while (atWork.count >= Wanted())
    {
        // Invariant 2. That more are wanted by now is noticed at the next of
        // these.
        const timespec until = ToTimespec(atWork.firstHangsAt);
        pthread_cond_clockwait(&gLeft, &gLeftMutex, CLOCK_MONOTONIC, &until);
        now = NowNanoseconds();
        atWork = CountAtWork(now);
    }
    Begin(now);
    Count(Figures().workersAdmitted);
}

void Leave()
{
    // Under the lock, or the one in line could count us and then miss this.
    const LeafLock lock(gLeftMutex);
    tSeat->since = 0;
    Uncount(Figures().workersAdmitted);
    pthread_cond_signal(&gLeft);
}

bool IsAdmitted()
{
    return tSeat != nullptr && tSeat->since != 0;
}

} // namespace

AdmittedWorker::AdmittedWorker()
{
    for (Seat &seat : gSeats)
    {
        if (!seat.taken.exchange(true))
        {
            tSeat = &seat;
            return;
        }
    }
}

AdmittedWorker::~AdmittedWorker()
{
    if (IsAdmitted())
    {
        Leave();
    }
    if (tSeat != nullptr)
    {
        tSeat->taken = false;
        tSeat = nullptr;
    }
}

void AwaitRecord()
{
    AssertMayWait();
    if (IsAdmitted())
    {
        const int64_t now = NowNanoseconds();
        NoteRecord(now);
        // On from record to record, without a wake-up, while there is work. One
        // that has come back after hanging may be one too many, and leaves.
        if (CountAtWork(now).count <= Wanted() &&
            sem_trywait(&gQdbEventSem) == 0)
        {
            Begin(now);
            return;
        }
        Leave();
    }
    // The record first and then the place (invariant 1).
    sem_wait(&gQdbEventSem);
    if (tSeat != nullptr)
    {
        Enter();
    }
}

} // namespace qdb
