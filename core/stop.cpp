#include "core/stop.h"

#include "core/cancel.h"
#include "core/log.h"
#include "core/state.h"
#include "core/threads.h"
#include "events/queues/event_queue.h"

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

void HandleSignal(int signalNumber)
{
    const int error = errno;
    if (signalNumber == SIGTERM)
    {
        sem_post(&gStopSem);
    }
    errno = error;
}

void StopService()
{
    ZOILRemoveEventListener(gEventListener);
    QueueStopRecords();
    SetCancelNCThread();
    CancelThread(gCorruptionThread);
    CancelThread(gBusServiceThread);
    SetCancelSignalThread();
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
            RequestStop();
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

} // namespace

void HoldStop()
{
    ChangeMask(SIG_BLOCK);
}

void LetStopIn()
{
    sem_init(&gStopSem, 0, 0);
    struct sigaction action = {};
    action.sa_handler = HandleSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    const int status =
        CreateThread(&gStopThread, nullptr, RunStopThread, nullptr);
    if (status != 0)
    {
        QDB_LOG(kLogError, "%s: no thread for SIGTERM: %d\n", status);
        return;
    }
    gStarted = true;
    ChangeMask(SIG_UNBLOCK);
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
}

} // namespace qdb
