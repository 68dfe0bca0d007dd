// Start-up and closing order.
//
// The order is the design: events are received before the database is open,
// and pile up on the queue; workers start only when the tables are filled, so
// that the whole backlog meets a populated database; readiness is published
// last and withdrawn last.

#include "service/lifecycle.h"

#include "busintake/signal_thread.h"
#include "config/presence_check.h"
#include "config/raw_data.h"
#include "core/gate.h"
#include "core/grouped.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/ready.h"
#include "core/sleep.h"
#include "core/state.h"
#include "core/statistics.h"
#include "core/status.h"
#include "core/supervisor.h"
#include "core/threads.h"
#include "core/waiting.h"
#include "db/clearing.h"
#include "db/connection.h"
#include "db/mapping.h"
#include "events/listener.h"
#include "events/workers.h"
#include "objects/catalogue.h"
#include "publish/bus_connection.h"
#include "publish/bus_service.h"
#include "publish/telemetry.h"
#include "queues/event_queue.h"
#include "queues/fail_queue.h"
#include "reconcile/nc_thread.h"
#include "reconcile/population.h"
#include "reconcile/recovery.h"
#include "service/stop.h"
#include "service/watch.h"

#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace qdb
{
namespace
{

constexpr int kLongBacklog = 1000;
constexpr unsigned kSettleMicroseconds = 1000000;
constexpr int kFlushLimitMs = 1000;

// Made and destroyed with the other two, and locked by nobody; the bus service
// has a mutex of its own under this name.
std::atomic<ZOMutex *> gNamedPipeJsonMutex = nullptr;

void CreateMutex(std::atomic<ZOMutex *> &mutex, const char *name)
{
    if (mutex == nullptr)
    {
        mutex = ZOMutexCreate(0);
        NoteProgress();
    }
    if (mutex == nullptr)
    {
        QDB_LOG(kLogWarning, "%s: Failed to allocate %s \n", name);
    }
}

void DestroyMutex(std::atomic<ZOMutex *> &mutex)
{
    ZOMutexDestroy(mutex.exchange(nullptr));
}

bool AllocateQueues()
{
    gQdbEventQueue =
        static_cast<QdbEventQueue *>(std::calloc(1, sizeof(QdbEventQueue)));
    gFailQueue = static_cast<FailQueue *>(std::calloc(1, sizeof(FailQueue)));
    return gQdbEventQueue != nullptr && gFailQueue != nullptr;
}

void OpenFigures()
{
    if (const int error = OpenStatistics(StatisticsPath().text))
    {
        QDB_LOG(kLogWarning, "%s: no statistics file: %s\n",
                strerrordesc_np(error));
    }
    Put(Figures().started, MomentNow());
    EnterPhase(Phase::Starting);
}

// Up to the first event that may arrive; false when the Data Manager refuses
// the listener.
bool Prepare()
{
    LogEntry("main");
    OpenFigures();
    ClearReadiness();
    CreateMutex(gQdbDBMutex, "gQdbDBMutex");
    CreateMutex(gNamedPipeMutex, "gNamedPipeMutex");
    CreateMutex(gNamedPipeJsonMutex, "gNamedPipeJsonMutex");
    sem_init(&gQdbEventSem, 0, 0);
    return QDVEventListenerAttach() == 0;
}

bool OpenDatabase()
{
    if (QDVDBInit() != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: QDVDBInit() Error.");
        return false;
    }
    QDB_LOG(kLogTrace, "%s: QDVDBInit() success.");
    sem_init(&gSqliteCorruptSem, 0, 0);
    if (kCounts)
    {
        CountRows();
    }
    sqlite3_update_hook(QDVdbHandle, TelemetryUpdateHook, nullptr);
    return true;
}

// Fills the tables; a corrupt database ends the process on the spot.
void Populate()
{
    EnterPhase(Phase::Filling);
    const int status = OnLoadObjectsCreation();
    if (status == SQLITE_CORRUPT)
    {
        QDB_LOG(kLogTrace, "%s: OnLoadObjectsCreation() returns ret=%d",
                status);
        std::exit(EXIT_FAILURE);
    }
    if (const int backlog = QdbEventQSize; backlog > kLongBacklog)
    {
        QDB_LOG(kLogTrace,
                "%s: OnLoadObjectsCreation() QdbEventQSize=%d skipping "
                "sqlite_contraint check",
                backlog);
        gSkipConstraintCheck = 1;
    }
    OnLoadRawObjectsUpdate();
}

// Returns how many there are.
int StartWorkers(QdbWorkerArg *arguments, const pthread_attr_t *attributes)
{
    int started = 0;
    for (int i = 0; i < kWorkerCount && !StopRequested(); ++i)
    {
        const long thID = i + 1;
        QDB_LOG(kLogTrace, "%s: Start thread: %ld", thID);
        arguments[i].thID = thID;
        const int status = StartThread(gWorkerThreads[i], QdbWorkerThread,
                                       &arguments[i], attributes);
        QDB_LOG(kLogTrace, "%s: Start thread: %ld, Status=%d", thID, status);
        started += status == 0 ? 1 : 0;
    }
    return started;
}

// The others can be missed, each with its part of the work; the log has told
// so. Without a worker nothing would ever take an event, and the service stops:
// false.
bool StartThreads(QdbWorkerArg *arguments)
{
    pthread_attr_t attributes;
    if (const int status = pthread_attr_init(&attributes))
    {
        QDB_LOG(kLogTrace, "%s: pthread_attr_init failed: %d", status);
        std::exit(EXIT_FAILURE);
    }
    StartThread(gBusServiceThread, RunBusServiceThread, nullptr, nullptr);
    const int workers = StartWorkers(arguments, &attributes);
    pthread_attr_destroy(&attributes);
    if (workers == 0 && !StopRequested())
    {
        QDB_LOG(kLogError, "%s: not a single worker, the service ends\n");
        StopService();
        return false;
    }
    StartThread(gNCThread, handle_QuillonDB_NC_Event_Request, nullptr, nullptr);
    StartThread(gCorruptionThread, handle_QuillonDB_Sqlite_corrupt, nullptr,
                nullptr);
    return true;
}

void TellOfMirror()
{
    if (gQdbReadyRetryPending == 1)
    {
        TellStatus("changes not announced: readiness is refused");
    }
    else if (gBusConnection == nullptr)
    {
        TellStatus("changes not announced: no bus");
    }
    else
    {
        TellStatus("%s objects, changes announced",
                   Grouped(static_cast<uint64_t>(CountObjects())).c_str());
    }
    TellReady();
}

// A stop ends the start-up at the next step; closing follows in any case. False
// when the service can't do its work.
bool StartUp(QdbWorkerArg *arguments)
{
    if (!Prepare())
    {
        return true;
    }
    LetStopIn();
    if (StopRequested() || !OpenDatabase())
    {
        return true;
    }
    SeedBusLibrary();
    StartThread(gSignalThread, handle_sdbus_signal_Request_thread, nullptr,
                nullptr);
    Populate();
    if (StopRequested())
    {
        return true;
    }
    if (!StartThreads(arguments))
    {
        return false;
    }
    SleepMicroseconds(kSettleMicroseconds);
    if (!StopRequested())
    {
        PublishReadiness();
        EnterPhase(Phase::Running);
        if (IsSupervised())
        {
            TellOfMirror();
        }
    }
    return true;
}

// The service lives here.
void JoinThreads()
{
    for (ServiceThread &worker : gWorkerThreads)
    {
        JoinThread(worker);
    }
    JoinThread(gNCThread);
    JoinThread(gBusServiceThread);
    JoinThread(gSignalThread);
    JoinThread(gCorruptionThread);
}

// Nobody but `main` is left when this returns, and the last signals are out.
void EndOtherWork()
{
    ShutGate();
    FinishStop();
    FlushBus(kFlushLimitMs);
}

void FreeGlobals()
{
    QDB_LOG(kLogTrace, "%s: Main exit: free globals \n");
    DestroyMutex(gQdbDBMutex);
    DestroyMutex(gNamedPipeMutex);
    DestroyMutex(gNamedPipeJsonMutex);
    sem_destroy(&gQdbEventSem);
    FreeEventQueue(gQdbEventQueue.exchange(nullptr));
    FreeFailQueue(gFailQueue.exchange(nullptr));
}

int Close()
{
    LogExit("main");
    CloseTelemetryPipe();
    FinalizeHandlerStatements();
    FinalizeClearingStatements();
    FinalizeMappingStatements();
    FinalizePresenceChecks();
    const int status = CloseDatabase();
    FreeGlobals();
    WithdrawReadiness();
    QDB_LOG(kLogTrace, "%s: Main exited \n");
    return status;
}

} // namespace

int RunService()
{
    HoldStop();
    // The telemetry reader may go away at any time; a write then fails.
    signal(SIGPIPE, SIG_IGN);
    if (!AllocateQueues())
    {
        EndWatch();
        return EXIT_FAILURE;
    }
    // Outlives the workers, which are joined below.
    QdbWorkerArg arguments[kWorkerCount] = {};
    const bool canWork = StartUp(arguments);
    JoinThreads();
    EndOtherWork();
    const int status = Close();
    EndWatch();
    return canWork ? status : EXIT_FAILURE;
}

} // namespace qdb
