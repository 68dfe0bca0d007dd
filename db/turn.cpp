#include "db/turn.h"

#include "core/lock.h"
#include "core/state.h"
#include "db/statement.h"
#include "queues/event_queue.h"

namespace qdb
{
namespace
{

pthread_mutex_t gTurnMutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<int> gWaiting = 0;   // threads that wait for gTurnMutex
std::atomic<int> gWorkAhead = 0; // WorkAhead objects

// A read may outlive a turn only under the eyes of the watch: a worker that
// hangs behind its turn could keep the read, and other processes from writing,
// for as long as it hangs. When the watch came by last. One that doesn't come
// by watches over nothing.
std::atomic<int64_t> gWatchedAt = 0;
constexpr int64_t kWatchNanoseconds = 20000000;

constinit thread_local int64_t tTurnSince = 0;

// A leaf, also inside SqliteStepMutex.
pthread_mutex_t gReadMutex = PTHREAD_MUTEX_INITIALIZER;
StatementSlot gReadStmt;             // guarded by gReadMutex
std::atomic<bool> gReadKept = false; // written under gReadMutex
std::atomic<bool> gStepped = false;  // since the watch's last tick

// Whether somebody will use an open read right away, or soon under the eyes of
// the watch.
bool ReadIsWanted(int64_t now)
{
    return gWaiting > 0 || (now - gWatchedAt < kWatchNanoseconds &&
                            (gWorkAhead > 0 || QdbEventQSize > 0));
}

// How long the turn was had is what admission lets workers in by.
void PassTurn(int64_t now)
{
    tTurnNanoseconds += now - tTurnSince;
    tHasTurn = false;
    pthread_mutex_unlock(&gTurnMutex);
}

} // namespace

DbTurn::DbTurn()
{
    // Whoever had the turn already would wait for itself.
    AssertMayWait();
    // Counted before the wait, so that the owner leaves the read open for us.
    ++gWaiting;
    pthread_mutex_lock(&gTurnMutex);
    --gWaiting;
    tHasTurn = true;
    tTurnSince = NowNanoseconds();
}

DbTurn::~DbTurn()
{
    End();
}

void DbTurn::End()
{
    if (!tHasTurn)
    {
        return;
    }
    const int64_t now = NowNanoseconds();
    // While the turn is still ours: behind it the read would be the next
    // owner's.
    if (!ReadIsWanted(now))
    {
        GiveUpRead();
    }
    PassTurn(now);
}

void GiveUpTurn()
{
    if (tHasTurn)
    {
        // Whatever this thread is about to wait for, other processes may want
        // to write meanwhile, wanted read or not.
        GiveUpRead();
        PassTurn(NowNanoseconds());
    }
}

StatementLock::StatementLock(pthread_mutex_t &mutex) : mutex_(mutex)
{
    // Its holder may sleep through a busy database, which may be busy because
    // of the read that we keep.
    if (pthread_mutex_trylock(&mutex_) != 0)
    {
        GiveUpTurn();
        pthread_mutex_lock(&mutex_);
    }
}

StatementLock::~StatementLock()
{
    pthread_mutex_unlock(&mutex_);
}

WorkAhead::WorkAhead()
{
    ++gWorkAhead;
}

WorkAhead::~WorkAhead()
{
    --gWorkAhead;
}

ReadWatch::~ReadWatch()
{
    // In this order: a turn that ends in between sees that nobody watches.
    gWatchedAt = 0;
    GiveUpRead();
}

void ReadWatch::Tick()
{
    gWatchedAt = NowNanoseconds();
    // It outlives the last step beside it by one tick at least, and two at
    // most.
    if (gReadKept && !gStepped.exchange(false))
    {
        GiveUpRead();
    }
}

void KeepRead()
{
    // Without a turn there is nobody who would give it up in time.
    if (gReadKept || !tHasTurn)
    {
        return;
    }
    const LeafLock lock(gReadMutex);
    bool wasReady = false;
    if (gReadKept || gReadStmt.Prepare("SELECT 1 FROM sqlite_master", -1,
                                       &wasReady) != SQLITE_OK)
    {
        return;
    }
    // A statement that stands on a row holds the shared lock: that is the read.
    gReadKept = sqlite3_step(gReadStmt.statement) == SQLITE_ROW;
    if (!gReadKept)
    {
        sqlite3_reset(gReadStmt.statement);
    }
}

bool ReadIsKept()
{
    return gReadKept;
}

bool GiveUpRead()
{
    // Without the lock, which each end of a turn would pay for otherwise.
    if (!gReadKept)
    {
        return false;
    }
    const LeafLock lock(gReadMutex);
    // Two may come for it at once, the turn's end and the watch.
    const bool kept = gReadKept.exchange(false);
    if (kept)
    {
        sqlite3_reset(gReadStmt.statement);
    }
    return kept;
}

void NoteStep()
{
    gStepped.store(true, std::memory_order_relaxed);
}

void FinalizeKeptRead()
{
    const LeafLock lock(gReadMutex);
    gReadKept = false;
    gReadStmt.Finalize();
}

} // namespace qdb
