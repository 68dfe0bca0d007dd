#include "core/cancel.h"

#include "core/lock.h"
#include "core/log.h"

namespace qdb
{
namespace
{

struct CancelFlag
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    bool set = false; // guarded by mutex
};

CancelFlag gCancelNCThread;
CancelFlag gCancelSignalThread;

void Set(CancelFlag &flag)
{
    const MutexLock lock(flag.mutex);
    flag.set = true;
}

bool Check(CancelFlag &flag, const char *function)
{
    const MutexLock lock(flag.mutex);
    if (flag.set)
    {
        QDB_LOG(kLogWarning, "%s: Canceled [%s] \n", function);
    }
    return flag.set;
}

} // namespace

void SetCancelNCThread()
{
    Set(gCancelNCThread);
}

void SetCancelSignalThread()
{
    Set(gCancelSignalThread);
}

bool CheckCancelNCThread()
{
    return Check(gCancelNCThread, "CheckCancelNCThread");
}

bool CheckCancelSignalThread()
{
    return Check(gCancelSignalThread, "CheckCancelSignalThread");
}

} // namespace qdb
