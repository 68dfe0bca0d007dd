#include "events/listener.h"

#include "core/fate.h"
#include "core/gate.h"
#include "core/guard.h"
#include "core/log.h"
#include "core/ready.h"
#include "core/state.h"
#include "core/status.h"
#include "events/detach.h"
#include "events/dispatch.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace qdb
{
namespace
{

// A destroy record that holds more than one OID is longer than this.
constexpr uint32_t kOneOidRecordSize = 24;

void LogReceived(const DataEventHeader &record)
{
    QDB_LOG(kLogTrace, "%s: received event: type: %u size: %u flags: 0x%02X",
            record.evtType, record.evtSize, record.evtFlags);
}

bool HasRawDataTexts(const DataEventHeader &record)
{
    const auto key = RecordWord(record, kRawKeyOffsetAt);
    const auto path = RecordWord(record, kRawPathOffsetAt);
    return key && path && RecordText(record, *key) != nullptr &&
           RecordText(record, *path) != nullptr;
}

// Whether a record that is to be queued holds all that its type promises. An
// object count that does not fit is the dispatcher's to refuse.
bool IsWhole(const DataEventHeader &record)
{
    switch (record.evtType)
    {
    case DATA_EVENT_DATA_OBJ_DIRTY_LIST:
    case DATA_EVENT_DATA_OBJ_CREATE:
    case DATA_EVENT_DATA_OBJ_DESTROY:
        return record.evtSize >= kFirstOidAt;
    case DATA_EVENT_OBJ_STATUS_CHG:
        return StatusObjectSize(record) != 0;
    case ZO_EVENT_RAW_DATA_UPDATE:
        return HasRawDataTexts(record);
    default:
        return record.evtSize >= sizeof(DataEventHeader);
    }
}

void LogRawData(const DataEventHeader &record)
{
    LogReceived(record);
    QDB_LOG(kLogTrace, "%s: Received for Key %s and filepath %s",
            RecordText(record, *RecordWord(record, kRawKeyOffsetAt)),
            RecordText(record, *RecordWord(record, kRawPathOffsetAt)));
}

struct FreeRecordCopy
{
    void operator()(DataEventHeader *copy) const
    {
        std::free(copy);
    }
};
using RecordPtr = std::unique_ptr<DataEventHeader, FreeRecordCopy>;

RecordPtr CopyRecord(const DataEventHeader &record)
{
    RecordPtr copy(static_cast<DataEventHeader *>(ZOAllocMem(record.evtSize)));
    if (copy == nullptr)
    {
        QDB_LOG(kLogError,
                "%s: failed to alloc memory for DataEventHeader structure");
        return copy;
    }
    std::copy_n(reinterpret_cast<const char *>(&record), record.evtSize,
                reinterpret_cast<char *>(copy.get()));
    return copy;
}

bool IsBunchDestroy(const DataEventHeader &record)
{
    return record.evtType == DATA_EVENT_DATA_OBJ_DESTROY &&
           record.evtSize > kOneOidRecordSize &&
           RecordWord(record, kObjCountAt).value_or(0) > 1;
}

// Ahead of everything on the queue, and before the callback returns.
void DestroyBunch(const DataEventHeader &record)
{
    QDB_LOG(kLogTrace, "%s: Delete has come in bunch objcount =%d\n",
            static_cast<int>(RecordWord(record, kObjCountAt).value_or(0)));
    CountArrivals(RoadOf(record), ObjectsIn(record));
    NotifyOnCallback(&record, DATA_EVENT_DATA_OBJ_DESTROY);
}

void TakeRecord(const DataEventHeader &record, bool retryReadiness)
{
    if (!IsWhole(record))
    {
        QDB_LOG(kLogInvalid,
                "%s: event dropped: type: %u size: %u is too "
                "short or badly formed\n",
                record.evtType, record.evtSize);
        CountOne(Figures().dropped, DropCause::Malformed);
        return;
    }
    if (record.evtType == ZO_EVENT_RAW_DATA_UPDATE)
    {
        LogRawData(record);
    }
    RecordPtr copy = CopyRecord(record);
    if (copy == nullptr)
    {
        CountOne(Figures().dropped, DropCause::NoMemory);
        return;
    }
    if (retryReadiness)
    {
        RetryReadiness("QDVEventListener");
    }
    if (IsBunchDestroy(record))
    {
        DestroyBunch(*copy);
        return;
    }
    QdbenQueue(gQdbEventQueue, copy.release());
}

EventKind KindOf(const DataEventHeader &record)
{
    switch (record.evtType)
    {
    case ZO_EVENT_RAW_DATA_UPDATE:
        return EventKind::RawData;
    case DATA_EVENT_DATA_OBJ_DIRTY_LIST:
        return EventKind::Refresh;
    case DATA_EVENT_OBJ_STATUS_CHG:
        return EventKind::StatusChange;
    case DATA_EVENT_DATA_OBJ_CREATE:
        return EventKind::Create;
    case DATA_EVENT_DATA_OBJ_DESTROY:
        return EventKind::Destroy;
    case DATA_EVENT_DM_DETACHED:
        return EventKind::Detach;
    default:
        return EventKind::Other;
    }
}

void HandleRecord(const DataEventHeader &record)
{
    LogReceived(record);
    const EventKind kind = KindOf(record);
    CountEvent(kind);
    if (kind == EventKind::Create)
    {
        Put(Figures().detachedSince, 0);
    }
    switch (record.evtType)
    {
    case ZO_EVENT_RAW_DATA_UPDATE:
    case DATA_EVENT_DATA_OBJ_DIRTY_LIST:
    case DATA_EVENT_OBJ_STATUS_CHG:
    case DATA_EVENT_DATA_OBJ_CREATE:
    case DATA_EVENT_DATA_OBJ_DESTROY:
        TakeRecord(record, true);
        break;
    case DATA_EVENT_DM_DETACHED:
        HandleDetach();
        break;
    default:
        if (IsReservedEvent(record.evtType))
        {
            TakeRecord(record, false);
        }
        else
        {
            CountOne(Figures().dropped, DropCause::UnknownType);
        }
        break;
    }
}

} // namespace

int QDVEventListenerAttach()
{
    gEventListener = QDVEventListener;
    const int status = ZOILAddEventListener(QDVEventListener);
    if (status != 0)
    {
        QDB_LOG(kLogListener, "%s: ZOILAddEventListener failed: status: %d",
                status);
        return status;
    }
    QDB_LOG(kLogTrace, "%s: event listener added");
    if (ZOILIsDataManagerReady() == 1)
    {
        QDB_LOG(kLogTrace, "%s: Client is attached.");
    }
    else
    {
        QDB_LOG(kLogTrace, "%s: Client attachment failed.");
    }
    return 0;
}

int QDVEventListener(DataEventHeader *record)
{
    const GateVisit visit;
    if (!visit || record == nullptr)
    {
        return 0;
    }
    Guard("event listener",
          [&]
          {
              HandleRecord(*record);
          });
    LogExit("QDVEventListener");
    return 0;
}

} // namespace qdb
