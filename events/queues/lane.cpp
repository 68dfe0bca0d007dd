#include "events/queues/lane.h"

#include "core/lock.h"
#include "core/state.h"

#include <atomic>
#include <cerrno>
#include <ctime>

namespace qdb
{
namespace
{

constexpr long kPatienceNanoseconds = 1000000;
constexpr long kNanosecondsPerSecond = 1000000000;

pthread_mutex_t gLineMutex = PTHREAD_MUTEX_INITIALIZER; // held by the next
pthread_mutex_t gLaneMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gLaneLeft = PTHREAD_COND_INITIALIZER;

std::atomic<int> gInside = 0; // workers at work; written under gLaneMutex
std::atomic<unsigned> gRecordsDone = 0;

thread_local bool tIsUser = false;
thread_local bool tIsInside = false;

// False when the time was up.
bool WaitForLeave()
{
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_nsec += kPatienceNanoseconds;
    if (deadline.tv_nsec >= kNanosecondsPerSecond)
    {
        deadline.tv_nsec -= kNanosecondsPerSecond;
        ++deadline.tv_sec;
    }
    return pthread_cond_clockwait(&gLaneLeft, &gLaneMutex, CLOCK_MONOTONIC,
                                  &deadline) != ETIMEDOUT;
}

void Enter()
{
    const MutexLock line(gLineMutex);
    const MutexLock lane(gLaneMutex);
    unsigned done = gRecordsDone;
    while (gInside > 0)
    {
        if (!WaitForLeave() && gRecordsDone == done)
        {
            break;
        }
        done = gRecordsDone;
    }
    ++gInside;
    tIsInside = true;
}

void Leave()
{
    const MutexLock lane(gLaneMutex);
    --gInside;
    tIsInside = false;
    pthread_cond_signal(&gLaneLeft);
}

} // namespace

LaneUser::LaneUser()
{
    tIsUser = true;
}

LaneUser::~LaneUser()
{
    if (tIsInside)
    {
        Leave();
    }
    tIsUser = false;
}

void AwaitRecord()
{
    ++gRecordsDone;
    if (tIsInside)
    {
        if (gInside == 1 && sem_trywait(&gQdbEventSem) == 0)
        {
            return;
        }
        Leave();
    }
    sem_wait(&gQdbEventSem);
    if (tIsUser)
    {
        Enter();
    }
}

} // namespace qdb
