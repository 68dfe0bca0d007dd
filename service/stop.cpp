#include "service/stop.h"

#include "core/cancel.h"
#include "core/gate.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/state.h"
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
    ChangeMask(SIG_UNBLOCK);
    WatchForRequestsOnly();
}

void StopService()
{
    RequestStop();
    RemoveListener();
    EndThreads();
    ShortenBusyWaits();
}

void EndThreads()
{
    const MutexLock lock(gStepsMutex);
    if (gStepsDone)
    {
        return;
    }
    gStepsDone = true;
    QueueStopRecords();
    SetCancelNCThread();
    CancelThread(gCorruptionThread);
    CancelThread(gBusServiceThread);
    SetCancelSignalThread();
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
    const MutexLock lock(gStepsMutex);
    gStepsDone = true;
}

} // namespace qdb
