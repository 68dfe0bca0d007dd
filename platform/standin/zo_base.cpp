// The base library: memory and mutexes.
#include "platform/zo_base.h"

#include "platform/standin/faults.h"

#include <pthread.h>

#include <cstdlib>
#include <ctime>

using standin::Call;
using standin::Faulted;

struct ZOMutex
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

void *ZOAllocMem(uint32_t size)
{
    return Faulted(Call("ZOAllocMem")) ? nullptr : std::calloc(1, size);
}

void ZOFreeMem(void *memory)
{
    static_cast<void>(Faulted(Call("ZOFreeMem")));
    std::free(memory);
}

ZOMutex *ZOMutexCreate(int initialState)
{
    if (Faulted(Call("ZOMutexCreate")))
    {
        return nullptr;
    }
    auto *mutex = new ZOMutex;
    if (initialState != 0)
    {
        pthread_mutex_lock(&mutex->mutex);
    }
    return mutex;
}

int ZOMutexLock(ZOMutex *mutex, int timeoutMs)
{
    int status = 0;
    if (Faulted(Call("ZOMutexLock"), &status) || mutex == nullptr)
    {
        return status;
    }
    if (timeoutMs < 0)
    {
        return pthread_mutex_lock(&mutex->mutex);
    }
    timespec until = {};
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += timeoutMs / 1000;
    until.tv_nsec += timeoutMs % 1000 * 1000000L;
    if (until.tv_nsec >= 1000000000L)
    {
        until.tv_nsec -= 1000000000L;
        ++until.tv_sec;
    }
    return pthread_mutex_timedlock(&mutex->mutex, &until);
}

int ZOMutexUnLock(ZOMutex *mutex)
{
    int status = 0;
    if (Faulted(Call("ZOMutexUnLock"), &status) || mutex == nullptr)
    {
        return status;
    }
    return pthread_mutex_unlock(&mutex->mutex);
}

int ZOMutexDestroy(ZOMutex *mutex)
{
    int status = 0;
    if (Faulted(Call("ZOMutexDestroy"), &status) || mutex == nullptr)
    {
        return status;
    }
    status = pthread_mutex_destroy(&mutex->mutex);
    if (status == 0)
    {
        delete mutex;
    }
    return status;
}
