#include "events/bus_dispatch.h"

#include "config/bus_rows.h"
#include "config/config_objects.h"
#include "core/fate.h"
#include "core/log.h"
#include "core/object_order.h"
#include "core/platform_ptr.h"
#include "core/state.h"
#include "core/status.h"
#include "db/clearing.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "objects/handlers.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"

#include <cstdlib>
#include <cstring>

namespace qdb
{
namespace
{

// A record's body, checked.
struct BusEvent
{
    const DataEventHeader *record;
    uint64_t taken;
    uint16_t kind;
    uint32_t oid;
    const char *path;
    const char *interfaceName;
};

uint16_t KindOf(const DataEventHeader &record)
{
    return static_cast<uint16_t>(
        RecordWord(record, kBusEventTypeAt).value_or(0));
}

// Reads the body; 0, or 2 with the reason logged.
int Decode(const DataEventHeader &record, BusEvent *pEvent)
{
    const uint32_t pathAt = RecordWord(record, kBusPathOffsetAt).value_or(0);
    const uint32_t interfaceAt =
        RecordWord(record, kBusInterfaceOffsetAt).value_or(0);
    if (pathAt == 0 || interfaceAt == 0)
    {
        QDB_LOG(kLogTrace,
                "%s: Invalid Event information, notification not processed\n");
        return kInvalidArgument;
    }
    pEvent->record = &record;
    pEvent->kind = KindOf(record);
    pEvent->oid = RecordWord(record, kBusOidAt).value_or(0);
    pEvent->path = RecordText(record, pathAt);
    pEvent->interfaceName = RecordText(record, interfaceAt);
    if (pEvent->path == nullptr || pEvent->interfaceName == nullptr)
    {
        QDB_LOG(kLogTrace,
                "%s: Invalid Event Type, notification not processed\n");
        return kInvalidArgument;
    }
    return SQLITE_OK;
}

// The interface's row, with its type in the log; NULL for an unknown one.
const BusRow *MapInterface(const BusEvent &event)
{
    const BusRow *row = FindBusRow(event.interfaceName);
    if (row == nullptr)
    {
        QDB_LOG(kLogWarning,
                "%s: unknown intf/objType = %s, notification not processed\n",
                event.interfaceName);
    }
    else
    {
        QDB_LOG(kLogTrace, "%s: ObjType = %s\n", row->nameInLog);
    }
    return row;
}

int FetchAttribute(const BusRow &row, const BusEvent &event,
                   ConfigObjectPtr *pObject)
{
    DataObjHeader *object = nullptr;
    const int status =
        dbus_get_data_obj_hdr(row.row->objType, event.path, &object);
    pObject->reset(object);
    NoteWhetherThere(object);
    return status;
}

ConfigObjectPtr FetchGroup(const BusEvent &event)
{
    DataObjHeader *group = nullptr;
    const int status = GetCfgGroupByPath(event.path, &group);
    ConfigObjectPtr parent(group);
    if (status != SQLITE_OK || parent == nullptr)
    {
        QDB_LOG(kLogError, "%s: Parent not found: %s\n", event.path);
        NoteLack();
        parent.reset();
    }
    else
    {
        QDB_LOG(kLogTrace, "%s: Parent Object found pParentDOH=%d\n",
                StoredOid(parent->objID));
    }
    return parent;
}

// How the two kinds that write a row differ.
struct WriteKind
{
    bool create;
    const char *name;
};

WriteKind WriteKindOf(const BusEvent &event)
{
    return event.kind == DATA_EVENT_DATA_OBJ_CREATE
               ? WriteKind{true, "DATA_EVENT_DATA_OBJ_CREATE"}
               : WriteKind{false, "DATA_EVENT_DATA_OBJ_DIRTY_LIST"};
}

void LogWrite(const WriteKind &kind, const BusEvent &event)
{
    if (kind.create)
    {
        QDB_LOG(kLogTrace, "%s: DATA_EVENT_DATA_OBJ_CREATE path_p: %s \n",
                event.path);
        QDB_LOG(kLogTrace, "%s: DATA_EVENT_DATA_OBJ_CREATE intf_p: %s \n",
                event.interfaceName);
    }
    else
    {
        QDB_LOG(kLogTrace, "%s: DATA_EVENT_DATA_OBJ_DIRTY_LIST path: %s",
                event.path);
        QDB_LOG(kLogTrace, "%s: DATA_EVENT_DATA_OBJ_DIRTY_LIST intf: %s",
                event.interfaceName);
    }
}

// After a write found the object unreadable: the status to go on with.
int FetchAgain(const WriteKind &kind, const BusRow &row, const BusEvent &event,
               ConfigObjectPtr *pObject)
{
    QDB_LOG(kLogTrace,
            "%s: ObjectNotification: %s: ZO_STATUS_INVALID_VALUE returned\n",
            kind.name);
    pObject->reset();
    if (FetchAttribute(row, event, pObject) == 0)
    {
        return ZO_STATUS_INVALID_VALUE;
    }
    if (kind.create)
    {
        QDB_LOG(kLogWarning, "%s: ZO_STATUS_NO_SUCH_OBJECT3: %s\n", event.path);
    }
    return ZO_STATUS_NO_SUCH_OBJECT;
}

// Create and dirty list.
int WriteAttribute(const BusEvent &event)
{
    const BusRow *row = MapInterface(event);
    if (row == nullptr)
    {
        return kFailed;
    }
    ConfigObjectPtr object;
    const int fetched = FetchAttribute(*row, event, &object);
    if (fetched != 0)
    {
        QDB_LOG(kLogWarning, "%s: ZO_STATUS_NO_SUCH_OBJECT1: %s\n", event.path);
        return fetched;
    }
    if (object == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: ZO_STATUS_NO_SUCH_OBJECT2: %s\n", event.path);
        return ZO_STATUS_NO_SUCH_OBJECT;
    }
    QDB_LOG(kLogTrace, "%s: thisEvent_p->evtType=%d\n", event.kind);
    const ConfigObjectPtr parent = FetchGroup(event);
    const WriteKind kind = WriteKindOf(event);
    LogWrite(kind, event);
    const FetchesAgain fetchesAgain;
    const int status = RunStatusLoop(
        {.pauseWhenBusy = false}, SQLITE_OK,
        [&]
        {
            return kind.create
                       ? CreateObject(*row->row, object.get(), parent.get())
                       : RefreshObject(*row->row, object.get(), parent.get());
        },
        [&]
        {
            return FetchAgain(kind, *row, event, &object);
        });
    QDB_LOG(kLogTrace, "%s: Exit");
    return IsSuccess(status) ? SQLITE_OK : FailureOf(status);
}

// Puts the record behind the queue once more, as that of a create.
void QueueCreate(const DataEventHeader &record)
{
    auto *copy = static_cast<char *>(std::malloc(record.evtSize));
    if (copy == nullptr)
    {
        QDB_LOG(kLogError, "%s: no memory for event %u\n", record.evtType);
        return;
    }
    std::memcpy(copy, &record, record.evtSize);
    const uint32_t kind = DATA_EVENT_DATA_OBJ_CREATE;
    std::memcpy(copy + kBusEventTypeAt, &kind, sizeof(kind));
    QdbenQueue(gQdbEventQueue, reinterpret_cast<DataEventHeader *>(copy));
}

int RunDelete(const BusRow &row, const BusEvent &event,
              const DataObjHeader &stub)
{
    Destroy destroy = {event.taken};
    int loop = 0;
    const int status = RunStatusLoop(
        {}, SQLITE_OK,
        [&]
        {
            QDB_LOG(kLogWarning, "%s: calling DeleteObjFP loop=%d\n", loop++);
            const int result = DeleteObject(*row.row, &stub, &destroy);
            QDB_LOG(kLogWarning, "%s: returned from DeleteObjFP\n");
            return result;
        });
    if (destroy.overtaken)
    {
        QueueCreate(*event.record);
    }
    if (status == ZO_STATUS_INVALID_VALUE)
    {
        QDB_LOG(kLogTrace,
                "%s: DBusObj_Notification_Map_Table: "
                "DATA_EVENT_DATA_OBJ_DESTROY: ZO_STATUS_INVALID_VALUE "
                "returned\n");
    }
    return IsSuccess(status) ? SQLITE_OK : status;
}

int DestroyAttribute(const BusEvent &event)
{
    // All that a delete looks at, on the stack: no memory can be wanting.
    DataObjHeader stub = {};
    QDB_LOG(kLogTrace, "%s:  addr of DOH_p 0x%08x\n",
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(&stub)));
    stub.objSize = 16;
    stub.objID = event.oid;
    const BusRow *row = MapInterface(event);
    if (row == nullptr)
    {
        return kFailed;
    }
    stub.objType = row->row->objType;
    QDB_LOG(kLogTrace, "%s: found_i=  %d DOH_p->objType = %x oid = %d\n",
            static_cast<int>(row - DBusObj_Notification_Map_Table.data()),
            stub.objType, StoredOid(event.oid));
    QDB_LOG(kLogTrace, "%s: DOH_p->objSize = %d DOH_p->objType = %d\n",
            static_cast<int>(stub.objSize), stub.objType);
    return RunDelete(*row, event, stub);
}

int ClearConfiguration()
{
    QDB_LOG(kLogWarning, "%s:  Received thisEventType "
                         "DATA_EVENT_POP_UNLOADED,  processing\n");
    if (ClearCfgMgrData() == SQLITE_OK)
    {
        return SQLITE_OK;
    }
    QDB_LOG(kLogWarning, "%s: Failed to clear on of the tables.\n");
    return kFailed;
}

int RunEvent(const BusEvent &event)
{
    QDB_LOG(kLogTrace, "%s: thisEventType %d\n", event.kind);
    QDB_LOG(kLogTrace, "%s: path =  %s\n", event.path);
    QDB_LOG(kLogTrace, "%s: intf = %s oid = %d\n", event.interfaceName,
            StoredOid(event.oid));
    switch (event.kind)
    {
    case DATA_EVENT_DATA_OBJ_CREATE:
        QDB_LOG(kLogWarning, "%s:  Received DATA_EVENT_DATA_OBJ_CREATE,  "
                             "processing\n");
        return WriteAttribute(event);
    case DATA_EVENT_DATA_OBJ_DIRTY_LIST:
        QDB_LOG(kLogWarning, "%s:  Received thisEventType "
                             "DATA_EVENT_DATA_OBJ_DIRTY_LIST,  processing\n");
        return WriteAttribute(event);
    case DATA_EVENT_DATA_OBJ_DESTROY:
        QDB_LOG(kLogWarning, "%s:  Received DATA_EVENT_DATA_OBJ_DESTROY,  "
                             "processing\n");
        return DestroyAttribute(event);
    default:
        QDB_LOG(kLogWarning,
                "%s: unknown thisEventType = %d, notification not processed\n",
                event.kind);
        return kInvalidArgument;
    }
}

} // namespace

int ObjectNotificationDbus(const DataEventHeader *record, uint16_t eventType,
                           uint64_t taken)
{
    QDB_LOG(kLogTrace, "%s: Entry");
    if (record == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: Invalid Argument pDEH null, notification not "
                           "processed\n");
        return kInvalidArgument;
    }
    if (eventType != DATA_EVENT_DBUS_TO_QDB)
    {
        QDB_LOG(kLogTrace,
                "%s: Invalid Event Type, notification not processed\n");
        return kInvalidArgument;
    }
    if (ClearsConfiguration(*record))
    {
        return ClearConfiguration();
    }
    const BookEntry entry(Road::Bus, Arrival::Counted);
    BusEvent event = {};
    event.taken = taken;
    const int status = Decode(*record, &event);
    if (status != SQLITE_OK)
    {
        NoteFate(Fate::Invalid);
        return status;
    }
    return RunEvent(event);
}

} // namespace qdb
