#include "core/threads.h"

#include "core/lock.h"
#include "core/log.h"
#include "core/waiting.h"

#include <signal.h>

#include <cerrno>
#include <cstdint>
#include <exception>

namespace qdb
{

namespace
{

constexpr ServiceThread Named(const char *name)
{
    return {name, nullptr, nullptr, {}, false, false};
}

constexpr ServiceThread kWorker = Named("a worker");

} // namespace

ServiceThread gSignalThread = Named("the signal thread");
ServiceThread gBusServiceThread = Named("the bus service");
ServiceThread gWorkerThreads[kWorkerCount] = {
    kWorker, kWorker, kWorker, kWorker, kWorker,
    kWorker, kWorker, kWorker, kWorker, kWorker,
};
ServiceThread gNCThread = Named("the NC thread");
ServiceThread gCorruptionThread = Named("the corruption thread");

namespace
{

// Guards the fields of all ServiceThreads and gStopRequested's setting.
pthread_mutex_t gMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gThreadEnded = PTHREAD_COND_INITIALIZER;
pthread_cond_t gStopCame = PTHREAD_COND_INITIALIZER;
std::atomic<bool> gStopRequested = false;

// By NowNanoseconds(); the end of time without a stop.
std::atomic<int64_t> gPatienceEnds = INT64_MAX;

constexpr int64_t kPatienceNanoseconds = 2000000000;
constexpr int64_t kNanosecondsPerMs = 1000000;

// The caller holds gMutex.
void MarkEnded(ServiceThread &thread)
{
    thread.ended = true;
    NoteProgress();
    pthread_cond_broadcast(&gThreadEnded);
}

// A cancel unwinds the stack as well, and has to pass: it is no std::exception.
// No Guard here: nothing of this frame may have its address taken, since the
// address sanitizer doesn't follow a cancelled thread out of it.
void *RunEntry(const ServiceThread &thread)
{
    try
    {
        return thread.entry(thread.argument);
    }
    catch (const std::exception &exception)
    {
        QDB_LOG(kLogError, "%s: %s failed: %s\n", thread.name,
                exception.what());
        return nullptr;
    }
}

void *RunThread(void *argument)
{
    ServiceThread &thread = *static_cast<ServiceThread *>(argument);
    void *result = RunEntry(thread);
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
    if (gStopRequested)
    {
        return false;
    }
    gPatienceEnds = NowNanoseconds() + kPatienceNanoseconds;
    gStopRequested = true;
    pthread_cond_broadcast(&gStopCame);
    return true;
}

bool AwaitStopRequest(int milliseconds)
{
    const timespec deadline =
        ToTimespec(NowNanoseconds() + milliseconds * kNanosecondsPerMs);
    const MutexLock lock(gMutex);
    int result = 0;
    while (!gStopRequested && result == 0)
    {
        result = milliseconds == kNoLimit
                     ? pthread_cond_wait(&gStopCame, &gMutex)
                     : pthread_cond_clockwait(&gStopCame, &gMutex,
                                              CLOCK_MONOTONIC, &deadline);
    }
    return gStopRequested;
}

bool StopPatienceIsOver()
{
    return gStopRequested && NowNanoseconds() > gPatienceEnds;
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
    if (status != 0)
    {
        QDB_LOG(kLogError, "%s: %s can't be started: %d\n", thread.name,
                status);
    }
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
