// Locks that are released on every way out of a scope, cancellation included.
#pragma once

#include "platform/zo_base.h"

#include <pthread.h>

#include <atomic>

namespace qdb
{

class MutexLock
{
  public:
    explicit MutexLock(pthread_mutex_t &mutex) : mutex_(mutex)
    {
        pthread_mutex_lock(&mutex_);
    }
    ~MutexLock()
    {
        pthread_mutex_unlock(&mutex_);
    }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

  private:
    pthread_mutex_t &mutex_;
};

// A mutex of the platform, taken without a time limit. The platform may have
// failed to make it, and a NULL handle locks nothing; `own` keeps what it
// guards safe even then.
class PlatformLock
{
  public:
    PlatformLock(const std::atomic<ZOMutex *> &mutex, pthread_mutex_t &own)
        : own_(own), mutex_(mutex)
    {
        ZOMutexLock(mutex_, -1);
    }
    ~PlatformLock()
    {
        ZOMutexUnLock(mutex_);
    }
    PlatformLock(const PlatformLock &) = delete;
    PlatformLock &operator=(const PlatformLock &) = delete;

  private:
    MutexLock own_;
    ZOMutex *mutex_;
};

} // namespace qdb
