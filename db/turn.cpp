#include "db/turn.h"

#include "core/lock.h"
#include "core/state.h"
#include "db/statement.h"
#include "events/queues/event_queue.h"

namespace qdb
{
namespace
{

pthread_mutex_t gTurnMutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<int> gWaiting = 0;   // threads that wait for gTurnMutex
std::atomic<int> gWorkAhead = 0; // WorkAhead objects

thread_local bool tHasTurn = false;

// A leaf, also inside SqliteStepMutex.
pthread_mutex_t gReadMutex = PTHREAD_MUTEX_INITIALIZER;
StatementSlot gReadStmt;             // guarded by gReadMutex
std::atomic<bool> gReadKept = false; // written under gReadMutex
std::atomic<bool> gStepped = false;  // since the last GiveUpIdleRead

// Whether somebody will use an open read right away.
bool ReadIsWanted()
{
    return gWaiting > 0 || gWorkAhead > 0 || QdbEventQSize > 0;
}

void PassTurn()
{
    tHasTurn = false;
    pthread_mutex_unlock(&gTurnMutex);
}

} // namespace

DbTurn::DbTurn()
{
    ++gWaiting;
    pthread_mutex_lock(&gTurnMutex);
    --gWaiting;
    tHasTurn = true;
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
    if (!ReadIsWanted())
    {
        GiveUpRead();
    }
    PassTurn();
}

WorkAhead::WorkAhead()
{
    ++gWorkAhead;
}

WorkAhead::~WorkAhead()
{
    if (--gWorkAhead == 0 && !ReadIsWanted())
    {
        GiveUpRead();
    }
}

void GiveUpTurn()
{
    GiveUpRead();
    if (tHasTurn)
    {
        PassTurn();
    }
}

bool GiveUpRead()
{
    if (!gReadKept)
    {
        return false;
    }
    const MutexLock lock(gReadMutex);
    const bool kept = gReadKept.exchange(false);
    if (kept)
    {
        sqlite3_reset(gReadStmt.statement);
    }
    return kept;
}

void GiveUpIdleRead()
{
    if (gReadKept && !gStepped.exchange(false))
    {
        GiveUpRead();
    }
}

void NoteStep()
{
    gStepped.store(true, std::memory_order_relaxed);
}

void KeepRead()
{
    if (gReadKept || !tHasTurn)
    {
        return;
    }
    const MutexLock lock(gReadMutex);
    bool wasReady = false;
    if (gReadKept || gReadStmt.Prepare("SELECT 1 FROM sqlite_master", -1,
                                       &wasReady) != SQLITE_OK)
    {
        return;
    }
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

void FinalizeKeptRead()
{
    const MutexLock lock(gReadMutex);
    gReadKept = false;
    gReadStmt.Finalize();
}

} // namespace qdb
