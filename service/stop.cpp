#include "service/stop.h"

#include "core/cancel.h"
#include "core/gate.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/state.h"
#include "core/statistics.h"
#include "core/supervisor.h"
#include "core/threads.h"
#include "db/busy_wait.h"
#include "queues/event_queue.h"
#include "service/watch.h"

#include <execinfo.h>
#include <signal.h>

#include <cerrno>

namespace qdb
{
namespace
{

sem_t gStopSem;
std::atomic<bool> gFinish = false;
pthread_t gStopThread;
bool gStarted = false; // `main` alone

// The steps may run on three threads: this file's, the watch, `main`.
pthread_mutex_t gStepsMutex = PTHREAD_MUTEX_INITIALIZER;
bool gStepsDone = false; // or not to be done; guarded by gStepsMutex
std::atomic<bool> gQueueing = false; // the stop records

void HandleSignal(int signalNumber)
{
    const int error = errno;
    if (signalNumber == SIGTERM)
    {
        sem_post(&gStopSem);
    }
    errno = error;
}

void *RunStopThread(void * /*argument*/)
{
    bool stopped = false;
    while (true)
    {
        // Any signal with a handler may interrupt it, and only a post counts.
        while (sem_wait(&gStopSem) != 0)
        {
        }
        if (gFinish)
        {
            return nullptr;
        }
        // Another SIGTERM only shows that somebody is impatient.
        if (!stopped)
        {
            stopped = true;
            StopService();
        }
    }
}

void ChangeMask(int how)
{
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(how, &term, nullptr);
}

// The first pthread_cancel of a process loads the unwinder, and without memory
// ends the process; so does the first backtrace, without the end.
void LoadUnwinder()
{
    void *frame = nullptr;
    backtrace(&frame, 1);
}

} // namespace

void HoldStop()
{
    ChangeMask(SIG_BLOCK);
    StartWatch();
}

void LetStopIn()
{
    LoadUnwinder();
    sem_init(&gStopSem, 0, 0);
    struct sigaction action = {};
    action.sa_handler = HandleSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    // Made while SIGTERM is blocked, which it inherits: the signal is always
    // the main thread's, and its handler only posts.
    const int status =
        CreateThread(&gStopThread, nullptr, RunStopThread, nullptr);
    gStarted = status == 0;
    if (!gStarted)
    {
        QDB_LOG(kLogError,
                "%s: no thread for SIGTERM, which ends the process at once: "
                "%d\n",
                status);
        signal(SIGTERM, SIG_DFL);
    }
    // One that came meanwhile arrives here.
    ChangeMask(SIG_UNBLOCK);
    WatchForRequestsOnly();
}

void StopService()
{
    // First of all, since the watch counts from here.
    RequestStop();
    EnterPhase(Phase::Stopping);
    // Before the stop records: what is queued behind them nobody takes. It may
    // hang in the platform; the watch goes on with EndThreads then.
    RemoveListener();
    EndThreads();
    ShortenBusyWaits();
    // Last of all, since both may take their time: SQLite, which may be at work
    // for somebody, and whoever is told.
    TellStopping();
}

void EndThreads()
{
    // By the stop thread or, when that hangs in the platform, by the watch;
    // whoever comes second finds it done, or waits for it to be.
    const MutexLock lock(gStepsMutex);
    if (gStepsDone)
    {
        return;
    }
    gStepsDone = true;
    // One for each worker, behind all that is queued: that is still carried
    // out.
    gQueueing = true;
    QueueStopRecords();
    gQueueing = false;
    SetCancelNCThread();
    // These two wait where only a cancel reaches them; the others look at their
    // flags by themselves.
    CancelThread(gCorruptionThread);
    CancelThread(gBusServiceThread);
    SetCancelSignalThread();
}

bool QueueingStopRecords()
{
    return gQueueing;
}

void FinishStop()
{
    if (gStarted)
    {
        gFinish = true;
        sem_post(&gStopSem);
        pthread_join(gStopThread, nullptr);
        gStarted = false;
    }
    // From here on the watch, too, has no more steps to take: what they use is
    // about to be freed.
    const MutexLock lock(gStepsMutex);
    gStepsDone = true;
}

} // namespace qdb
