// The base library: memory and mutexes.
#include "platform/zo_base.h"

#include "standin/calls.h"

#include <pthread.h>

#include <cstdlib>
#include <ctime>

using standin::Call;
using standin::Entry;

struct ZOMutex
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

void *ZOAllocMem(uint32_t size)
{
    const Entry entry(Call("ZOAllocMem"));
    return entry.Fails() ? nullptr : std::calloc(1, size);
}

void ZOFreeMem(void *memory)
{
    const Entry entry(Call("ZOFreeMem"));
    std::free(memory);
}

ZOMutex *ZOMutexCreate(int initialState)
{
    const Entry entry(Call("ZOMutexCreate"));
    if (entry.Fails())
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
    const Entry entry(Call("ZOMutexLock"));
    if (entry.Fails() || mutex == nullptr)
    {
        return entry.Status();
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
    const Entry entry(Call("ZOMutexUnLock"));
    if (entry.Fails() || mutex == nullptr)
    {
        return entry.Status();
    }
    return pthread_mutex_unlock(&mutex->mutex);
}

int ZOMutexDestroy(ZOMutex *mutex)
{
    const Entry entry(Call("ZOMutexDestroy"));
    if (entry.Fails() || mutex == nullptr)
    {
        return entry.Status();
    }
    const int status = pthread_mutex_destroy(&mutex->mutex);
    if (status == 0)
    {
        delete mutex;
    }
    return status;
}
