#include "tests/support/mirror.h"

#include "config/presence_check.h"
#include "core/json.h"
#include "core/paths.h"
#include "core/state.h"
#include "db/clearing.h"
#include "db/connection.h"
#include "db/mapping.h"
#include "events/listener.h"
#include "objects/catalogue.h"
#include "publish/bus_connection.h"
#include "publish/bus_service.h"
#include "publish/telemetry.h"
#include "queues/event_queue.h"
#include "queues/fail_queue.h"
#include "standin/object_builder.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

namespace qdb::test
{

namespace
{
std::unique_ptr<PrivateBus> gBus;
}

const PrivateBus &BusEnvironment::Bus()
{
    return *gBus;
}

void BusEnvironment::SetUp()
{
    gBus = std::make_unique<PrivateBus>();
    StartThread(gBusServiceThread, RunBusServiceThread, nullptr, nullptr);
    EXPECT_TRUE(WaitUntil(
        []
        {
            return gBusConnection != nullptr;
        }));
}

void BusEnvironment::TearDown()
{
    FlushBus(kDeadlineMs);
    CancelThread(gBusServiceThread);
    JoinThread(gBusServiceThread);
    gBus.reset();
}

namespace
{

void ResetFlags()
{
    DbusEventsEnabled = 0;
    gQdbReadyRetryPending = 0;
    gSkipConstraintCheck = 0;
    gDMDetachClearing = 0;
}

void AllocateQueues()
{
    gQdbEventQueue =
        static_cast<QdbEventQueue *>(std::calloc(1, sizeof(QdbEventQueue)));
    gFailQueue = static_cast<FailQueue *>(std::calloc(1, sizeof(FailQueue)));
    QdbEventQSize = 0;
    sem_init(&gQdbEventSem, 0, 0);
    sem_init(&gSqliteCorruptSem, 0, 0);
    gQdbDBMutex = ZOMutexCreate(0);
    gNamedPipeMutex = ZOMutexCreate(0);
}

json_t *ParseValues(const std::string &values)
{
    json_error_t error = {};
    json_t *parsed = json_loads(values.c_str(), 0, &error);
    EXPECT_NE(parsed, nullptr) << error.text << " in " << values;
    return parsed;
}

} // namespace

Mirror::Mirror(MirrorParts parts) : threads_(parts.threads)
{
    std::signal(SIGPIPE, SIG_IGN);
    standin::Reset();
    ResetFlags();
    gRuntimeRoot = root_.Path().c_str();
    root_.MakeDatabase();
    if (parts.pipe)
    {
        root_.MakePipe();
    }
    AllocateQueues();
    EXPECT_EQ(QDVDBInit(), 0);
    sqlite3_update_hook(QDVdbHandle, TelemetryUpdateHook, nullptr);
    if (threads_)
    {
        EXPECT_EQ(QDVEventListenerAttach(), 0);
        StartWorkers();
        DbusEventsEnabled = 1;
    }
}

Mirror::~Mirror()
{
    if (threads_)
    {
        ZOILRemoveEventListener(QDVEventListener);
        standin::WaitDelivered(kDeadlineMs);
        StopWorkers();
    }
    CloseTelemetryPipe();
    FinalizeHandlerStatements();
    FinalizeClearingStatements();
    FinalizeMappingStatements();
    FinalizePresenceChecks();
    EXPECT_EQ(CloseDatabase(), 0) << "a statement was not finalised";
    QDVdbHandle = nullptr;
    FreeEventQueue(gQdbEventQueue.exchange(nullptr));
    FreeFailQueue(gFailQueue.exchange(nullptr));
    ZOMutexDestroy(gQdbDBMutex.exchange(nullptr));
    ZOMutexDestroy(gNamedPipeMutex.exchange(nullptr));
    sem_destroy(&gQdbEventSem);
    standin::SetLog(0, nullptr);
    gRuntimeRoot = "";
}

void Mirror::Settle()
{
    EXPECT_TRUE(standin::WaitDelivered(kDeadlineMs));
    StopWorkers();
    // A record may have been put behind the queue, and so behind the stop.
    while (QdbEventQSize > 0)
    {
        StartWorkers();
        StopWorkers();
    }
    StartWorkers();
}

void Mirror::StartWorkers()
{
    for (int i = 0; i < kWorkerCount; ++i)
    {
        arguments_[i].thID = i + 1;
        StartThread(gWorkerThreads[i], QdbWorkerThread, &arguments_[i],
                    nullptr);
    }
}

void Mirror::StopWorkers()
{
    QueueStopRecords();
    for (ServiceThread &worker : gWorkerThreads)
    {
        JoinThread(worker);
    }
}

std::vector<uint8_t> MakeObject(uint16_t type, uint32_t oid,
                                const std::string &values, uint8_t status)
{
    const JsonPtr parsed(ParseValues(values));
    standin::ObjectHead head = {};
    head.type = type;
    head.oid = oid;
    head.status = status;
    std::string error;
    std::vector<uint8_t> object =
        standin::BuildObject(head, parsed.get(), &error);
    EXPECT_EQ(error, "");
    return object;
}

uint32_t PutObject(uint16_t type, uint32_t oid, const std::string &values,
                   bool announce)
{
    const JsonPtr parsed(ParseValues(values));
    standin::ObjectSpec spec;
    spec.type = type;
    spec.oid = oid;
    spec.values = parsed.get();
    uint32_t made = 0;
    EXPECT_EQ(standin::CreateObject(spec, announce, &made), "");
    return made;
}

} // namespace qdb::test
