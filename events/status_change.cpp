#include "events/status_change.h"

#include "core/fate.h"
#include "core/log.h"
#include "core/status.h"
#include "db/execute.h"
#include "objects/cached_object.h"
#include "objects/handlers.h"
#include "objects/object_loop.h"
#include "queues/event_record.h"
#include "reconcile/key_reload.h"
#include "reconcile/reloads.h"

namespace qdb
{
namespace
{

void PassOn(const char *function, const DataObjHeader &object)
{
    NoteFate(Fate::PassedOn);
    QDB_LOG(kLogTrace, "%s: DATA_EVENT_OBJ_STATUS_CHG calling %s for OID:%x\n",
            function, object.objID);
}

// Refreshes the object in every row of its type, in status loops; the first
// failure ends the walk.
int RefreshRows(const DataObjHeader &object, uint64_t taken, BookEntry *pEntry)
{
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        if (object.objType == 0 || row.objType != object.objType)
        {
            continue;
        }
        QDB_LOG(kLogTrace,
                "%s: Request:DATA_EVENT_OBJ_STATUS_CHG Update: OID: %X",
                object.objID);
        const int status = RunStatusLoop(
            {}, SQLITE_OK,
            [&]
            {
                NoteFetch(&object, taken);
                return RunOnNewest(&object,
                                   [&](const DataObjHeader *pDOH)
                                   {
                                       return RefreshObject(row, pDOH, nullptr);
                                   });
            });
        if (!IsSuccess(status))
        {
            return FailureOf(status);
        }
        pEntry->NextRow();
    }
    return SQLITE_OK;
}

// Any type that has no reload of its own. The keyed object is known by its OID
// alone, so that without it nothing can be told from it, and nothing is done.
int HandleOther(const DataObjHeader &object, uint64_t taken, BookEntry *pEntry)
{
    const ObjectPtr keyed = FetchKeyedObject();
    if (keyed == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: ObjectNotificationStChg: pDOHkey is NULL\n");
        return SQLITE_OK;
    }
    if (keyed->objID != object.objID)
    {
        return RefreshRows(object, taken, pEntry);
    }
    PassOn("ReLoadKeyBasedNCObjects", object);
    return RunKeyReload();
}

int HandleObject(const DataObjHeader &object, uint64_t taken, BookEntry *pEntry)
{
    switch (ReloadOf(object.objType))
    {
    case Reload::Memory:
        PassOn("ReLoadNCObjects", object);
        return RunMemoryReload();
    case Reload::Fru:
        // The words are those of memory.
        PassOn("ReLoadNCObjects", object);
        return RunFRUReload();
    case Reload::Device:
        PassOn("ObjTypeBasedNCObjects", object);
        return RunTypeReload();
    case Reload::HostPower:
    case Reload::None:
        break;
    }
    return HandleOther(object, taken, pEntry);
}

} // namespace

int ObjectNotificationStChg(const DataEventHeader *event, uint64_t taken)
{
    QDB_LOG(kLogTrace, "%s: ObjectNotificationStChg: Entry\n");
    if (event == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: ObjectNotificationStChg: Invalid Argument, "
                           "notification not processed\n");
        return kInvalidArgument;
    }
    BookEntry entry(Road::DataManager, Arrival::Counted);
    const uint32_t size = StatusObjectSize(*event);
    if (size == 0)
    {
        QDB_LOG(kLogInvalid,
                "%s: event dropped: type: %u size: %u is too short or badly "
                "formed\n",
                event->evtType, event->evtSize);
        return kInvalidArgument;
    }
    // A copy, so that the object begins where one from the Data Manager may.
    const ObjectPtr object = CopyObject(
        reinterpret_cast<const char *>(event) + kStatusObjectAt, size);
    if (object == nullptr)
    {
        NoteFate(Fate::NoMemory);
        QDB_LOG(kLogTrace, "%s: ObjectNotificationStChg: pDOH NO memory\n");
        return kNoMemory;
    }
    const int status = HandleObject(*object, taken, &entry);
    QDB_LOG(kLogTrace, "%s: ObjectNotificationStChg: Exit: %d", status);
    return status;
}

} // namespace qdb
