#include "events/dispatch.h"

#include "core/fate.h"
#include "core/log.h"
#include "core/object_order.h"
#include "core/platform_ptr.h"
#include "core/state.h"
#include "core/status.h"
#include "core/threads.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "db/turn.h"
#include "objects/catalogue.h"
#include "objects/handlers.h"
#include "objects/object_loop.h"
#include "objects/parents.h"
#include "objects/predicates.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"
#include "reconcile/fru_reload.h"

#include <cstdlib>
#include <cstring>

namespace qdb
{
namespace
{

// How long the callback's thread waits for who has an object in hand.
constexpr int kCallbackPatienceMs = 100;

// A record and how it is carried out.
struct Notification
{
    uint16_t eventType;
    uint64_t taken;
    bool onCallback;
    int patienceMs;       // -1: no end
    int returnStatus = 0; // so far
};

// One OID of a record on its way through the catalogue. `object` is NULL once
// the Data Manager has lost it.
struct Visit
{
    Notification &notification;
    uint32_t oid;
    uint32_t objType;
    ObjectPtr object;
    ObjectPtr parent;
};

int RunCreate(Visit &visit, const ObjTypeRow &row)
{
    QDB_LOG(kLogTrace,
            "%s: Request: DATA_EVENT_DATA_OBJ_CREATE Create: OID: %X \n",
            visit.oid);
    return RunOnObject("ObjectNotification: DATA_EVENT_DATA_OBJ_CREATE",
                       visit.notification.returnStatus, visit.oid,
                       &visit.object, WhenGone::FetchAgain,
                       [&](const DataObjHeader *pDOH)
                       {
                           return CreateObject(row, pDOH, visit.parent.get());
                       });
}

int RunRefresh(Visit &visit, const ObjTypeRow &row)
{
    QDB_LOG(kLogTrace,
            "%s: Request: DATA_EVENT_DATA_OBJ_DIRTY_LIST Update: OID: %X",
            visit.oid);
    return RunOnObject("ObjectNotification: DATA_EVENT_DATA_OBJ_DIRTY_LIST",
                       visit.notification.returnStatus, visit.oid,
                       &visit.object, WhenGone::Fail,
                       [&](const DataObjHeader *pDOH)
                       {
                           return RefreshObject(row, pDOH, nullptr);
                       });
}

// Puts an event about one object behind the queue.
void QueueObject(uint16_t eventType, uint32_t oid)
{
    struct
    {
        DataEventHeader header = {};
        uint32_t objCount = 1;
        uint32_t oid = 0;
    } record;
    record.header.evtSize = sizeof(record);
    record.header.evtType = eventType;
    record.oid = oid;
    void *copy = std::malloc(sizeof(record));
    if (copy == nullptr)
    {
        QDB_LOG(kLogError, "%s: no memory for event %u of OID: %X\n", eventType,
                oid);
        return;
    }
    std::memcpy(copy, &record, sizeof(record));
    QdbenQueue(gQdbEventQueue, static_cast<DataEventHeader *>(copy));
}

// An object that somebody else has in hand is the queue's. Nobody is waited for
// a second time: it is mostly the same one.
void LeaveToQueue(Notification &notification, uint32_t oid)
{
    notification.patienceMs = 0;
    NoteFate(Fate::PassedOn);
    QueueObject(DATA_EVENT_DATA_OBJ_DESTROY, oid);
}

int RunDelete(Visit &visit, const ObjTypeRow &row)
{
    QDB_LOG(kLogTrace,
            "%s: Request: DATA_EVENT_DATA_OBJ_DESTROY Delete: OID: %X",
            visit.oid);
    Notification &notification = visit.notification;
    Destroy destroy = {notification.taken, notification.patienceMs};
    const int status = RunStatusLoop({}, notification.returnStatus,
                                     [&]
                                     {
                                         return DeleteObject(
                                             row, visit.object.get(), &destroy);
                                     });
    if (destroy.heldUp)
    {
        LeaveToQueue(notification, visit.oid);
        return SQLITE_OK;
    }
    if (destroy.overtaken)
    {
        QueueObject(DATA_EVENT_DATA_OBJ_CREATE, visit.oid);
    }
    return status;
}

// What some types need after their handler, unless the database is corrupt.
void RunAfterStep(const Visit &visit, const ObjTypeRow &row, int status)
{
    if (status == SQLITE_CORRUPT || visit.object == nullptr)
    {
        return;
    }
    if (row.Has(Trait::MovesAmongParents) &&
        visit.notification.eventType == DATA_EVENT_DATA_OBJ_DIRTY_LIST)
    {
        RefreshParentChildMapping(visit.object.get(), visit.oid);
    }
    if (row.reload == Reload::Fru &&
        visit.notification.eventType == DATA_EVENT_DATA_OBJ_DESTROY)
    {
        ClearFRUCacheEntry(visit.oid);
    }
}

// The parent for a create; only one that was found at the first try counts.
void FindParent(Visit &visit)
{
    int status = SQLITE_OK;
    visit.parent.reset();
    visit.parent = FetchParent(visit.object.get(), &status);
    if (status != SQLITE_OK)
    {
        visit.parent.reset();
    }
}

bool RowApplies(const Visit &visit, const ObjTypeRow &row)
{
    return visit.notification.eventType == DATA_EVENT_DATA_OBJ_DESTROY ||
           row.match == Match::Every ||
           Applies(row, visit.object.get(), visit.parent.get());
}

void RunRow(Visit &visit, const ObjTypeRow &row)
{
    if (visit.notification.eventType == DATA_EVENT_DATA_OBJ_CREATE)
    {
        FindParent(visit);
    }
    QDB_LOG(kLogTrace, "%s: EventType=%d\n", visit.notification.eventType);
    if (!RowApplies(visit, row))
    {
        return;
    }
    const int status =
        visit.notification.eventType == DATA_EVENT_DATA_OBJ_CREATE
            ? RunCreate(visit, row)
        : visit.notification.eventType == DATA_EVENT_DATA_OBJ_DIRTY_LIST
            ? RunRefresh(visit, row)
            : RunDelete(visit, row);
    if (!IsSuccess(status))
    {
        visit.notification.returnStatus = FailureOf(status);
    }
    RunAfterStep(visit, row, status);
}

// Both rows of a two-row type are visited; a failure in one doesn't stop the
// other. The walk ends when the object has vanished under way.
void WalkRows(Visit &visit, BookEntry *pEntry)
{
    if (visit.objType == 0)
    {
        return;
    }
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        if (row.objType == visit.objType && visit.object != nullptr)
        {
            RunRow(visit, row);
            pEntry->NextRow();
        }
    }
}

// Looks up the type of an object that is to be destroyed. That it isn't mapped
// is noted, since a create under way may have fetched it before it was
// destroyed. False when somebody else has the object in hand.
bool LookUpType(const Notification &notification, uint32_t oid,
                uint16_t *pObjType)
{
    ObjectClaim claim(oid, notification.taken, notification.patienceMs);
    if (!claim.IsHeld())
    {
        return false;
    }
    *pObjType = static_cast<uint16_t>(GetObjType(oid));
    if (*pObjType == 0)
    {
        NoteFate(Fate::NoRow);
        claim.NoteKnown();
    }
    return true;
}

// A header with just the OID and the type, all that a delete looks at. From
// calloc, so that the platform can release it. NULL when there is nothing to be
// done.
ObjectPtr MakeStub(Notification &notification, uint32_t oid)
{
    ObjectPtr stub(
        static_cast<DataObjHeader *>(std::calloc(1, sizeof(DataObjHeader))));
    if (stub == nullptr)
    {
        NoteFate(Fate::NoMemory);
        QDB_LOG(kLogTrace, "%s: malloc Failed!!");
        return stub;
    }
    stub->objID = oid;
    if (!LookUpType(notification, oid, &stub->objType))
    {
        LeaveToQueue(notification, oid);
        stub.reset();
    }
    return stub;
}

bool IsSkipped(uint32_t objType)
{
    if (IsConfigType(objType))
    {
        NoteFate(Fate::Legacy);
        QDB_LOG(kLogTrace,
                "%s: Skipping legacy DM Event for ObjType=0x%04x!!\n", objType);
        return true;
    }
    return false;
}

// The object of a create or a dirty list; NULL when there is nothing to be
// done.
ObjectPtr FetchVisited(const DataEventHeader &record,
                       Notification &notification, uint32_t oid)
{
    QDB_LOG(kLogTrace, "%s: Objcount =%d\n",
            static_cast<int>(*RecordWord(record, kObjCountAt)));
    ObjectPtr object = FetchObject(oid);
    if (object == nullptr)
    {
        notification.returnStatus = ZO_STATUS_NO_SUCH_OBJECT;
    }
    else if (IsSkipped(object->objType))
    {
        object.reset();
    }
    return object;
}

void VisitOid(const DataEventHeader &record, Notification &notification,
              uint32_t oid)
{
    BookEntry entry(Road::DataManager, Arrival::Counted);
    if (IsSkipped(GetObjType(oid)))
    {
        return;
    }
    Visit visit = {notification, oid, 0, nullptr, nullptr};
    visit.object = notification.eventType == DATA_EVENT_DATA_OBJ_DESTROY
                       ? MakeStub(notification, oid)
                       : FetchVisited(record, notification, oid);
    if (visit.object != nullptr)
    {
        visit.objType = visit.object->objType;
        WalkRows(visit, &entry);
    }
}

int Notify(const DataEventHeader *record, Notification notification)
{
    if (record == nullptr)
    {
        QDB_LOG(kLogTrace,
                "%s: Invalid Argument, notification not processed\n");
        return kInvalidArgument;
    }
    const std::optional<uint32_t> count = ObjectCount(*record);
    if (!count)
    {
        QDB_LOG(kLogTrace,
                "%s: Invalid Obj Count in ObjList, notification not processed "
                "pOL->objCount=%u\n",
                RecordWord(*record, kObjCountAt).value_or(0));
        return kInvalidObjectCount;
    }
    const WorkAhead more;
    ListEntry entry(Road::DataManager, *count);
    for (uint32_t i = 0;
         i < *count && !(notification.onCallback && StopRequested()); ++i)
    {
        const uint32_t at =
            kFirstOidAt + i * static_cast<uint32_t>(sizeof(uint32_t));
        entry.TakeOne();
        VisitOid(*record, notification, *RecordWord(*record, at));
    }
    return notification.returnStatus;
}

} // namespace

int ObjectNotification(const DataEventHeader *record, uint16_t eventType,
                       uint64_t taken)
{
    return Notify(record, {eventType, taken, false, -1});
}

int NotifyOnCallback(const DataEventHeader *record, uint16_t eventType)
{
    return Notify(record, {eventType, Tick(), true, kCallbackPatienceMs});
}

} // namespace qdb
