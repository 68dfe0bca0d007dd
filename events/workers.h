// The ten event workers.
//
// A worker takes records off gQdbEventQueue, one at a time, and runs their
// dispatch. Records run in parallel and there is no order per object; what
// keeps the tables right are the handlers' own locks. A worker ends on a stop
// record, taken in turn like any other.
#pragma once

#include <pthread.h>

namespace qdb
{

struct QdbWorkerArg
{
    long thID; // 1 to 10
};

// Thread entry; the argument is a QdbWorkerArg that outlives the thread. Posts
// gSqliteCorruptSem when a record met a corrupt database.
void *QdbWorkerThread(void *argument);

} // namespace qdb
