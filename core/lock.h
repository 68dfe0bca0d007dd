// Locks that are released on every way out of a scope, cancellation included.
#pragma once

#include "core/waiting.h"
#include "platform/zo_base.h"

#include <pthread.h>

#include <atomic>

namespace qdb
{

// A mutex whose holders wait for nothing: it may be taken with the turn at the
// database in hand.
class LeafLock
{
  public:
    explicit LeafLock(pthread_mutex_t &mutex) : mutex_(mutex)
    {
        pthread_mutex_lock(&mutex_);
    }
    ~LeafLock()
    {
        pthread_mutex_unlock(&mutex_);
    }
    LeafLock(const LeafLock &) = delete;
    LeafLock &operator=(const LeafLock &) = delete;

  private:
    pthread_mutex_t &mutex_;
};

// Any other mutex: who waits for it may wait for whatever its holder waits for.
class MutexLock
{
  public:
    explicit MutexLock(pthread_mutex_t &mutex) : lock_(Allowed(mutex))
    {
    }

  private:
    static pthread_mutex_t &Allowed(pthread_mutex_t &mutex)
    {
        AssertMayWait();
        return mutex;
    }

    LeafLock lock_;
};

// A MutexLock that gives up after a while.
class PatientLock
{
  public:
    // patienceMs -1: waits as long as it takes.
    PatientLock(pthread_mutex_t &mutex, int patienceMs)
        : mutex_(mutex), held_(Take(patienceMs))
    {
    }
    ~PatientLock()
    {
        if (held_)
        {
            pthread_mutex_unlock(&mutex_);
        }
    }
    PatientLock(const PatientLock &) = delete;
    PatientLock &operator=(const PatientLock &) = delete;

    bool IsHeld() const
    {
        return held_;
    }

  private:
    bool Take(int patienceMs);

    pthread_mutex_t &mutex_;
    bool held_;
};

// A hold of a mutex of the platform, taken without a time limit. NULL locks
// nothing. What the platform fails to lock isn't unlocked: others may have it.
class PlatformHold
{
  public:
    explicit PlatformHold(ZOMutex *mutex)
        : mutex_(mutex), held_(ZOMutexLock(mutex, -1) == 0)
    {
    }
    ~PlatformHold()
    {
        if (held_)
        {
            ZOMutexUnLock(mutex_);
        }
    }
    PlatformHold(const PlatformHold &) = delete;
    PlatformHold &operator=(const PlatformHold &) = delete;

  private:
    ZOMutex *mutex_;
    bool held_;
};

// A mutex of the platform as a leaf like LeafLock's. The platform may fail to
// make it or to lock it; `own` keeps what it guards safe even then.
class PlatformLock
{
  public:
    PlatformLock(const std::atomic<ZOMutex *> &mutex, pthread_mutex_t &own)
        : own_(own), hold_(mutex)
    {
    }
    PlatformLock(const PlatformLock &) = delete;
    PlatformLock &operator=(const PlatformLock &) = delete;

  private:
    LeafLock own_;
    PlatformHold hold_;
};

} // namespace qdb
