#include "core/lock.h"

#include "core/sleep.h"

namespace qdb
{

constexpr unsigned kLookAgainMicroseconds = 1000;

// Looks again and again: a wait of pthreads until a point in time follows the
// clock on the wall, which may be set.
bool PatientLock::Take(int patienceMs)
{
    AssertMayWait();
    if (patienceMs < 0)
    {
        return pthread_mutex_lock(&mutex_) == 0;
    }
    for (int waited = 0; pthread_mutex_trylock(&mutex_) != 0; ++waited)
    {
        if (waited >= patienceMs)
        {
            return false;
        }
        SleepMicroseconds(kLookAgainMicroseconds);
    }
    return true;
}

} // namespace qdb
