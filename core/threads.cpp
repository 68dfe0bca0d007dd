#include "core/threads.h"

#include "core/guard.h"
#include "core/lock.h"

#include <signal.h>

#include <cerrno>

namespace qdb
{

ServiceThread gSignalThread;
ServiceThread gBusServiceThread;
ServiceThread gWorkerThreads[kWorkerCount];
ServiceThread gNCThread;
ServiceThread gCorruptionThread;

namespace
{

// Guards the fields of all ServiceThreads and gStopRequested's setting.
pthread_mutex_t gMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gThreadEnded = PTHREAD_COND_INITIALIZER;
std::atomic<bool> gStopRequested = false;

// The caller holds gMutex.
void MarkEnded(ServiceThread &thread)
{
    thread.ended = true;
    pthread_cond_broadcast(&gThreadEnded);
}

void *RunThread(void *argument)
{
    ServiceThread &thread = *static_cast<ServiceThread *>(argument);
    void *result = nullptr;
    Guard("thread",
          [&]
          {
              result = thread.entry(thread.argument);
          });
    const MutexLock lock(gMutex);
    MarkEnded(thread);
    return result;
}

} // namespace

bool StopRequested()
{
    return gStopRequested;
}

bool RequestStop()
{
    const MutexLock lock(gMutex);
    return !gStopRequested.exchange(true);
}

int StartThread(ServiceThread &thread, ThreadEntry entry, void *argument,
                const pthread_attr_t *attributes)
{
    const MutexLock lock(gMutex);
    if (gStopRequested)
    {
        return ECANCELED;
    }
    thread.entry = entry;
    thread.argument = argument;
    thread.ended = false;
    const int status =
        CreateThread(&thread.handle, attributes, RunThread, &thread);
    thread.running = status == 0;
    return status;
}

void CancelThread(ServiceThread &thread)
{
    const MutexLock lock(gMutex);
    if (thread.running)
    {
        pthread_cancel(thread.handle);
        MarkEnded(thread);
    }
}

void JoinThread(ServiceThread &thread)
{
    {
        const MutexLock lock(gMutex);
        if (!thread.running)
        {
            return;
        }
        while (!thread.ended)
        {
            pthread_cond_wait(&gThreadEnded, &gMutex);
        }
        thread.running = false;
    }
    pthread_join(thread.handle, nullptr);
}

int CreateThread(pthread_t *handle, const pthread_attr_t *attributes,
                 ThreadEntry entry, void *argument)
{
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const int status = pthread_create(handle, attributes, entry, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return status;
}

} // namespace qdb
