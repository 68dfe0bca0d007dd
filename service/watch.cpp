#include "service/watch.h"

#include "core/cancel.h"
#include "core/gate.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/ready.h"
#include "core/state.h"
#include "core/threads.h"
#include "core/waiting.h"
#include "publish/bus_connection.h"
#include "service/stop.h"

#include <signal.h>
#include <unistd.h>

#include <cstdlib>

namespace qdb
{
namespace
{

constexpr int kTickMs = 100;
constexpr int64_t kTickNanoseconds = kTickMs * int64_t{1000000};

// Limits in ticks, not by the clock: on a machine that is too busy to run the
// watch, what is watched has its time too.
constexpr int kHangTicks = 20;
constexpr int kStepTicks = 40;
constexpr int kWaitTicks = 10;

constexpr unsigned kLastActsSeconds = 2;
constexpr int kFlushLimitMs = 1000;

pthread_mutex_t gMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gWake = PTHREAD_COND_INITIALIZER;
bool gEnded = false; // guarded by gMutex
std::atomic<bool> gSignalIsHeld = true;
pthread_t gThread;
bool gStarted = false; // `main` alone

// Waits for the next tick. False when the watch has been ended.
bool NextTick()
{
    const timespec deadline = ToTimespec(NowNanoseconds() + kTickNanoseconds);
    const MutexLock lock(gMutex);
    while (!gEnded && pthread_cond_clockwait(&gWake, &gMutex, CLOCK_MONOTONIC,
                                             &deadline) == 0)
    {
    }
    return !gEnded;
}

bool SigtermIsPending()
{
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return sigismember(&pending, SIGTERM) == 1;
}

void AwaitStop()
{
    while (gSignalIsHeld)
    {
        if (SigtermIsPending() || AwaitStopRequest(kTickMs))
        {
            return;
        }
    }
    AwaitStopRequest(kNoLimit);
}

void EndAtOnce(int /*signalNumber*/)
{
    _exit(EXIT_SUCCESS);
}

// Ends the process when the calling thread doesn't CallOff it in time.
void SetAlarm()
{
    struct sigaction action = {};
    action.sa_handler = EndAtOnce;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
    alarm(kLastActsSeconds);
}

void CallOffAlarm()
{
    alarm(0);
}

// The steps may meet a lock of who hangs.
void TakeStepsOver()
{
    SetAlarm();
    EndThreads();
    CallOffAlarm();
}

// The log comes last: a platform that hangs may hang in that, too.
[[noreturn]] void LeaveBehind()
{
    SetAlarm();
    FlushBusIfFree(kFlushLimitMs);
    WithdrawReadiness();
    QDB_LOG(kLogError, "%s: a stop meets calls that don't come back; ending "
                       "without them\n");
    QDB_LOG(kLogTrace, "%s: Main exited \n");
    _exit(EXIT_SUCCESS);
}

// A step that is under way may be at work on the file. Once no step is, none
// begins.
bool NoStepIsUnderWay()
{
    return pthread_mutex_trylock(&SqliteStepMutex) == 0;
}

void WatchStop()
{
    unsigned seen = gProgress;
    int still = 0;
    int removing = 0;
    int queueing = 0;
    while (NextTick())
    {
        const unsigned now = gProgress;
        still = now == seen ? still + 1 : 0;
        seen = now;
        removing = RemovingListener() ? removing + 1 : 0;
        if (removing == kWaitTicks)
        {
            TakeStepsOver();
        }
        queueing = QueueingStopRecords() ? queueing + 1 : 0;
        if (queueing == kWaitTicks)
        {
            // Their work would be taken for that of a stop that gets on.
            SetCancelNCThread();
            SetCancelSignalThread();
        }
        if (still >= kHangTicks + kStepTicks ||
            (still >= kHangTicks && NoStepIsUnderWay()))
        {
            LeaveBehind();
        }
    }
}

void *RunWatch(void * /*argument*/)
{
    AwaitStop();
    gProgressCounts = true;
    WatchStop();
    return nullptr;
}

} // namespace

void StartWatch()
{
    const int status = CreateThread(&gThread, nullptr, RunWatch, nullptr);
    gStarted = status == 0;
    if (!gStarted)
    {
        QDB_LOG(kLogError, "%s: no thread to watch over a stop: %d\n", status);
    }
}

void WatchForRequestsOnly()
{
    gSignalIsHeld = false;
}

void EndWatch()
{
    if (!gStarted)
    {
        return;
    }
    {
        const MutexLock lock(gMutex);
        gEnded = true;
        pthread_cond_signal(&gWake);
    }
    RequestStop();
    pthread_join(gThread, nullptr);
    gStarted = false;
}

} // namespace qdb
