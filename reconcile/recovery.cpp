#include "reconcile/recovery.h"

#include "core/cancel.h"
#include "core/gate.h"
#include "core/log.h"
#include "core/state.h"
#include "core/supervisor.h"
#include "core/threads.h"
#include "queues/event_queue.h"

#include <cerrno>

namespace qdb
{
namespace
{

// Waits for the first post, the only place where the thread can be cancelled.
// False when the semaphore failed.
bool WaitForCorruption()
{
    int before = 0;
    int result = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &before);
    do
    {
        result = sem_wait(&gSqliteCorruptSem);
    } while (result != 0 && errno == ETIMEDOUT);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    return result == 0;
}

void StopService()
{
    RequestStop();
    RemoveListener();
    SetCancelNCThread();
    CancelThread(gBusServiceThread);
    SetCancelSignalThread();
    QDB_LOG(kLogTrace, "%s: handle_QuillonDB_Sqlite_corrupt sqlite corrupt "
                       "error occured\n");
    QueueStopRecords();
    TellStopping();
}

} // namespace

void *handle_QuillonDB_Sqlite_corrupt(void *argument)
{
    int before = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    if (argument != nullptr)
    {
        QDB_LOG(kLogTrace,
                "%s: handle_QuillonDB_Sqlite_corrupt param is NULL\n");
    }
    if (WaitForCorruption())
    {
        StopService();
    }
    QDB_LOG(kLogTrace, "%s: SQLITE_CORRUPT THREAD ACCEPT THREAD ENDED \n");
    return nullptr;
}

} // namespace qdb
