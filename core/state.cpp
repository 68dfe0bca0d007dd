#include "core/state.h"

namespace qdb
{

std::atomic<sqlite3 *> QDVdbHandle = nullptr;
std::atomic<QdbEventQueue *> gQdbEventQueue = nullptr;
std::atomic<FailQueue *> gFailQueue = nullptr;
std::atomic<ZOMutex *> gQdbDBMutex = nullptr;
std::atomic<ZOMutex *> gNamedPipeMutex = nullptr;
std::atomic<ZOILEventListener> gEventListener = nullptr;

sem_t gQdbEventSem;
sem_t gSqliteCorruptSem;

std::atomic<uint8_t> DbusEventsEnabled = 0;
std::atomic<uint8_t> gQdbReadyRetryPending = 0;
std::atomic<uint8_t> gSkipConstraintCheck = 0;
std::atomic<uint8_t> gDMDetachClearing = 0;

pthread_mutex_t SqliteStepMutex = PTHREAD_MUTEX_INITIALIZER;

} // namespace qdb
