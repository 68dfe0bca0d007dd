#include "bench/service.h"

#include "core/state.h"
#include "core/threads.h"
#include "db/clearing.h"
#include "db/mapping.h"
#include "events/listener.h"
#include "events/queues/event_queue.h"
#include "events/queues/event_record.h"
#include "events/queues/fail_queue.h"
#include "events/workers.h"
#include "platform/standin/standin.h"
#include "publish/bus_connection.h"
#include "publish/bus_service.h"
#include "publish/change_signal.h"
#include "publish/telemetry.h"
#include "tests/support/wait.h"

#include <sqlite3.h>

#include <cstdlib>
#include <stdexcept>

namespace qdb::bench
{
namespace
{

EventType EventOf(Operation operation)
{
    switch (operation)
    {
    case Operation::Create:
        return DATA_EVENT_DATA_OBJ_CREATE;
    case Operation::RefreshChanged:
    case Operation::RefreshSame:
        return DATA_EVENT_DATA_OBJ_DIRTY_LIST;
    case Operation::Delete:
        break;
    }
    return DATA_EVENT_DATA_OBJ_DESTROY;
}

// The ten workers. Stop lets them finish what is queued.
class Workers
{
  public:
    Workers()
    {
        for (int i = 0; i < kWorkerCount; ++i)
        {
            arguments_[i].thID = i + 1;
            StartThread(gWorkerThreads[i], QdbWorkerThread, &arguments_[i],
                        nullptr);
        }
    }
    ~Workers()
    {
        Stop();
    }
    Workers(const Workers &) = delete;
    Workers &operator=(const Workers &) = delete;

    void Stop()
    {
        if (running_)
        {
            running_ = false;
            QueueStopRecords();
            for (ServiceThread &worker : gWorkerThreads)
            {
                JoinThread(worker);
            }
        }
    }

  private:
    QdbWorkerArg arguments_[kWorkerCount] = {};
    bool running_ = true;
};

// The listener's registration. Events that were sent before wait for it.
class Listening
{
  public:
    Listening()
    {
        if (QDVEventListenerAttach() != 0)
        {
            throw std::runtime_error("the stand-in refused the listener");
        }
    }
    ~Listening()
    {
        standin::WaitDelivered(test::kDeadlineMs);
        ZOILRemoveEventListener(QDVEventListener);
    }
    Listening(const Listening &) = delete;
    Listening &operator=(const Listening &) = delete;
};

// Until the listener has queued all records behind `number`. The stand-in could
// tell it as well, but wakes its caller at every event.
void WaitQueued(int number, size_t records)
{
    const bool queued = test::WaitUntil(
        [&]
        {
            return gQdbSeqNumber - number >= static_cast<int>(records);
        });
    if (!queued)
    {
        throw std::runtime_error("the listener did not take all events");
    }
}

} // namespace

BusThread::BusThread()
{
    StartThread(gBusServiceThread, RunBusServiceThread, nullptr, nullptr);
    const bool connected = test::WaitUntil(
        []
        {
            return gBusConnection != nullptr;
        });
    if (!connected)
    {
        throw std::runtime_error("the service has no bus");
    }
}

BusThread::~BusThread()
{
    FlushBus(test::kDeadlineMs);
    CancelThread(gBusServiceThread);
    JoinThread(gBusServiceThread);
}

Service::Service(Subscriber &subscriber)
    : subscriber_(subscriber), drain_(scratch_.Pipe())
{
    QdbSortObjTypeLists();
    gQdbEventQueue =
        static_cast<QdbEventQueue *>(std::calloc(1, sizeof(QdbEventQueue)));
    gFailQueue = static_cast<FailQueue *>(std::calloc(1, sizeof(FailQueue)));
    if (gQdbEventQueue == nullptr || gFailQueue == nullptr)
    {
        throw std::runtime_error("no memory for the service's queues");
    }
    gQdbDBMutex = ZOMutexCreate(0);
    gNamedPipeMutex = ZOMutexCreate(0);
    sem_init(&gQdbEventSem, 0, 0);
    sem_init(&gSqliteCorruptSem, 0, 0);
    sqlite3_update_hook(QDVdbHandle, TelemetryUpdateHook, nullptr);
    DbusEventsEnabled = 1;
}

Service::~Service()
{
    CloseTelemetryPipe();
    FinalizeHandlerStatements();
    FinalizeClearingStatements();
    FinalizeMappingStatements();
    FreeEventQueue(gQdbEventQueue.exchange(nullptr));
    FreeFailQueue(gFailQueue.exchange(nullptr));
    ZOMutexDestroy(gQdbDBMutex.exchange(nullptr));
    ZOMutexDestroy(gNamedPipeMutex.exchange(nullptr));
    sem_destroy(&gQdbEventSem);
    sem_destroy(&gSqliteCorruptSem);
}

Outcome Service::Run(Operation operation, std::span<const uint32_t> oids)
{
    const size_t signals = oids.size() * SignalsOf(operation);
    for (const uint32_t &oid : oids)
    {
        standin::SendObjectList(EventOf(operation), {&oid, 1});
    }
    subscriber_.Begin();
    const int number = gQdbSeqNumber;
    Workers workers;
    Clock::time_point end;
    const Clock::time_point begin = Clock::now();
    {
        const Listening listening;
        if (signals > 0)
        {
            end = subscriber_.WaitFor(signals);
        }
        else
        {
            WaitQueued(number, oids.size());
            workers.Stop();
            end = Clock::now();
        }
    }
    workers.Stop();
    ChangeJsonAdded(kFence);
    return {std::chrono::duration<double>(end - begin).count(),
            subscriber_.End(signals)};
}

} // namespace qdb::bench
