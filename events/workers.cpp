#include "events/workers.h"

#include "config/raw_data.h"
#include "core/guard.h"
#include "core/log.h"
#include "core/state.h"
#include "core/statistics.h"
#include "core/status.h"
#include "events/bus_dispatch.h"
#include "events/dispatch.h"
#include "events/status_change.h"
#include "queues/admission.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"

namespace qdb
{
namespace
{

void LogBusRecord(const DataEventHeader &record, int thID)
{
    const uint32_t path = RecordWord(record, kBusPathOffsetAt).value_or(0);
    const uint32_t interface =
        RecordWord(record, kBusInterfaceOffsetAt).value_or(0);
    const char *pathText = RecordText(record, path);
    const char *interfaceText = RecordText(record, interface);
    QDB_LOG(kLogTrace, "%s:  received DATA_EVENT_DBUS_TO_QDB thID=%d", thID);
    QDB_LOG(kLogTrace, "%s: qdv_dequeue evtSize = [%d] ",
            static_cast<int>(record.evtSize));
    QDB_LOG(kLogTrace, "%s: qdv_dequeue evtType = [%d] ", record.evtType);
    QDB_LOG(kLogTrace, "%s: qdv_dequeue evtFlags = [%d] ", record.evtFlags);
    QDB_LOG(
        kLogTrace, "%s: qdv_dequeue evtType = [%d]",
        static_cast<uint16_t>(RecordWord(record, kBusEventTypeAt).value_or(0)));
    QDB_LOG(kLogTrace, "%s: qdv_dequeue offsetPath = [%d] ",
            static_cast<int>(path));
    QDB_LOG(kLogTrace, "%s: qdv_dequeue offsetIntf = [%d] ",
            static_cast<int>(interface));
    QDB_LOG(kLogTrace, "%s: qdv_dequeue Path = [%s]",
            pathText == nullptr ? "" : pathText);
    QDB_LOG(kLogTrace, "%s: qdv_dequeue Intf = [%s]",
            interfaceText == nullptr ? "" : interfaceText);
}

// Runs a record's dispatch; a type without one leaves the status as it was.
int Dispatch(const QdbEventNode &node, int thID, int status)
{
    const DataEventHeader &record = *node.data;
    switch (record.evtType)
    {
    case DATA_EVENT_DATA_OBJ_DIRTY_LIST:
    case DATA_EVENT_DATA_OBJ_CREATE:
    case DATA_EVENT_DATA_OBJ_DESTROY:
        return ObjectNotification(&record, record.evtType, node.taken);
    case DATA_EVENT_DBUS_TO_QDB:
        LogBusRecord(record, thID);
        AwaitClearings(node);
        return ObjectNotificationDbus(&record, record.evtType, node.taken);
    case DATA_EVENT_OBJ_STATUS_CHG:
        return ObjectNotificationStChg(&record, node.taken);
    case ZO_EVENT_RAW_DATA_UPDATE:
        return ObjectNotificationRawData(&record, record.evtType);
    default:
        return status;
    }
}

// Tells since when a worker has been at a record, and when that came.
class AtWork
{
  public:
    AtWork(const QdbEventNode &node, int thID)
        : busySince_(
              Figures().workerBusySince.at(static_cast<size_t>(thID - 1)))
    {
        tEventCame = node.came;
        Put(busySince_, MomentNow());
    }
    ~AtWork()
    {
        Put(busySince_, 0);
        tEventCame = 0;
    }
    AtWork(const AtWork &) = delete;
    AtWork &operator=(const AtWork &) = delete;

  private:
    Cell &busySince_;
};

// Takes and runs records until a stop record comes.
void RunRecords(int thID)
{
    const AdmittedWorker admitted;
    int status = SQLITE_OK;
    while (true)
    {
        QDB_LOG(kLogTrace, "%s: Call QdbdeQueue for thID=%d", thID);
        EventNodePtr node(QdbdeQueue(gQdbEventQueue));
        if (node == nullptr || node->data == nullptr)
        {
            continue;
        }
        QDB_LOG(kLogTrace, "%s: Dequeue SeqNo = %d, thID = %d, event=%d",
                node->seqNo, thID, node->data->evtType);
        if (node->data->evtType == DATA_EVENT_WORKER_EXIT)
        {
            QDB_LOG(kLogTrace, "%s: Dequeue SeqNo = %d, thID = %d Exiting",
                    node->seqNo, thID);
            return;
        }
        {
            const AtWork atWork(*node, thID);
            Guard("event record",
                  [&]
                  {
                      status = Dispatch(*node, thID, status);
                  });
        }
        node.reset();
        if (status == SQLITE_CORRUPT)
        {
            sem_post(&gSqliteCorruptSem);
        }
    }
}

} // namespace

void *QdbWorkerThread(void *argument)
{
    const int thID =
        static_cast<int>(static_cast<const QdbWorkerArg *>(argument)->thID);
    QDB_LOG(kLogTrace, "%s: thID=%d", thID);
    RunRecords(thID);
    QDB_LOG(kLogTrace, "%s: ACCEPT THREAD %d ENDED", thID);
    return nullptr;
}

} // namespace qdb
