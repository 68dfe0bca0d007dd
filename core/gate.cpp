#include "core/gate.h"

#include "core/lock.h"
#include "core/state.h"
#include "core/waiting.h"

namespace qdb
{
namespace
{

pthread_mutex_t gMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gAllLeft = PTHREAD_COND_INITIALIZER;
int gInside = 0;                // guarded by gMutex
bool gShut = false;             // guarded by gMutex
std::atomic<int> gRemovals = 0; // calls under way

} // namespace

bool EnterGate()
{
    const MutexLock lock(gMutex);
    gInside += gShut ? 0 : 1;
    return !gShut;
}

void EnterGateForOther()
{
    const MutexLock lock(gMutex);
    ++gInside;
}

void LeaveGate()
{
    const MutexLock lock(gMutex);
    --gInside;
    NoteProgress();
    if (gInside == 0)
    {
        pthread_cond_broadcast(&gAllLeft);
    }
}

void RemoveListener()
{
    ++gRemovals;
    ZOILRemoveEventListener(gEventListener);
    --gRemovals;
    NoteProgress();
}

bool RemovingListener()
{
    return gRemovals > 0;
}

void ShutGate()
{
    const MutexLock lock(gMutex);
    gShut = true;
    while (gInside != 0)
    {
        pthread_cond_wait(&gAllLeft, &gMutex);
    }
}

} // namespace qdb
