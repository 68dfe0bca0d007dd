// The words that the whole process shares.
//
// All are zero at load unless told otherwise and live as long as the process.
// Those that are written and read without a common lock are atomic; no order
// between them and the rows of the database is promised.
#pragma once

#include "platform/zo_base.h"
#include "platform/zoil.h"

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cstdint>

struct sqlite3;

namespace qdb
{

struct QdbEventQueue;
struct FailQueue;

// --- Set by start-up, constant until closing ------------------------------

// The one connection. NULL: not open.
extern std::atomic<sqlite3 *> QDVdbHandle;

// The event queue and the queue of failed operations.
extern std::atomic<QdbEventQueue *> gQdbEventQueue;
extern std::atomic<FailQueue *> gFailQueue;

// Guards the event queue and its counters; in spite of its name no database
// state. NULL when the platform could not make it.
extern std::atomic<ZOMutex *> gQdbDBMutex;

// Guards the telemetry pipe's descriptor and keeps its records whole.
extern std::atomic<ZOMutex *> gNamedPipeMutex;

// The callback that the Data Manager was given; NULL: none yet.
extern std::atomic<ZOILEventListener> gEventListener;

// --- Semaphores -----------------------------------------------------------

// One post per record on the event queue.
extern sem_t gQdbEventSem;

// Posted by whoever meets SQLITE_CORRUPT; ends the service.
extern sem_t gSqliteCorruptSem;

// --- Flags ----------------------------------------------------------------

// 1: change signals may go out and rows may be counted against the Data
// Manager. From 0 to 1 once in a process's life, by start-up or the listener.
extern std::atomic<uint8_t> DbusEventsEnabled;

// 1: publishing readiness failed; the listener tries again on its events. Set
// by start-up, cleared by the listener.
extern std::atomic<uint8_t> gQdbReadyRetryPending;

// 1: population left a long backlog, and mapped OIDs aren't waited for. Set by
// start-up, cleared by QdbdeQueue.
extern std::atomic<uint8_t> gSkipConstraintCheck;

// 1: the listener is clearing all tables, and deleted rows aren't reported one
// by one. Set by the listener, read by the update hook.
extern std::atomic<uint8_t> gDMDetachClearing;

// --- Locks ----------------------------------------------------------------

// Held across every sqlite3_step of the process, and across nothing else.
extern pthread_mutex_t SqliteStepMutex;

} // namespace qdb
