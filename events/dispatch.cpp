#include "events/dispatch.h"

#include "core/log.h"
#include "core/platform_ptr.h"
#include "core/status.h"
#include "core/threads.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "db/turn.h"
#include "events/queues/event_record.h"
#include "objects/catalogue.h"
#include "reconcile/fru_cache.h"
#include "reconcile/object_loop.h"
#include "reconcile/parent.h"

namespace qdb
{
namespace
{

constexpr uint32_t kPhysicalDisk = 0x304;
constexpr uint32_t kFru = 0x42;

// One OID of a record on its way through the catalogue. `object` is NULL once
// the Data Manager has lost it.
struct Visit
{
    uint16_t eventType;
    uint32_t oid;
    uint32_t objType;
    ObjectPtr object;
    ObjectPtr parent;
    int returnStatus; // of the whole record, so far
};

int RunCreate(Visit &visit, const ObjTypeRow &row)
{
    QDB_LOG(kLogTrace,
            "%s: Request: DATA_EVENT_DATA_OBJ_CREATE Create: OID: %X \n",
            visit.oid);
    return RunOnObject("ObjectNotification: DATA_EVENT_DATA_OBJ_CREATE",
                       visit.returnStatus, visit.oid, &visit.object,
                       WhenGone::FetchAgain,
                       [&](const DataObjHeader *pDOH)
                       {
                           return row.CreateObjFP(pDOH, visit.parent.get());
                       });
}

int RunRefresh(Visit &visit, const ObjTypeRow &row)
{
    QDB_LOG(kLogTrace,
            "%s: Request: DATA_EVENT_DATA_OBJ_DIRTY_LIST Update: OID: %X",
            visit.oid);
    return RunOnObject("ObjectNotification: DATA_EVENT_DATA_OBJ_DIRTY_LIST",
                       visit.returnStatus, visit.oid, &visit.object,
                       WhenGone::Fail,
                       [&](const DataObjHeader *pDOH)
                       {
                           return row.RefreshObjFP(pDOH, nullptr);
                       });
}

int RunDelete(Visit &visit, const ObjTypeRow &row)
{
    QDB_LOG(kLogTrace,
            "%s: Request: DATA_EVENT_DATA_OBJ_DESTROY Delete: OID: %X",
            visit.oid);
    return RunStatusLoop({}, visit.returnStatus,
                         [&]
                         {
                             return row.DeleteObjFP(visit.object.get());
                         });
}

// What some types need after their handler, unless the database is corrupt.
void RunAfterStep(const Visit &visit, int status)
{
    if (status == SQLITE_CORRUPT || visit.object == nullptr)
    {
        return;
    }
    if (visit.objType == kPhysicalDisk &&
        visit.eventType == DATA_EVENT_DATA_OBJ_DIRTY_LIST)
    {
        RefreshParentChildMapping(visit.object.get(), visit.oid);
    }
    if (visit.objType == kFru && visit.eventType == DATA_EVENT_DATA_OBJ_DESTROY)
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
    return visit.eventType == DATA_EVENT_DATA_OBJ_DESTROY ||
           row.ObjMatchFP == nullptr ||
           row.ObjMatchFP(visit.object.get(), visit.parent.get()) == 0;
}

void RunRow(Visit &visit, const ObjTypeRow &row)
{
    if (visit.eventType == DATA_EVENT_DATA_OBJ_CREATE)
    {
        FindParent(visit);
    }
    QDB_LOG(kLogTrace, "%s: EventType=%d\n", visit.eventType);
    if (!RowApplies(visit, row))
    {
        return;
    }
    const int status = visit.eventType == DATA_EVENT_DATA_OBJ_CREATE
                           ? RunCreate(visit, row)
                       : visit.eventType == DATA_EVENT_DATA_OBJ_DIRTY_LIST
                           ? RunRefresh(visit, row)
                           : RunDelete(visit, row);
    if (!IsSuccess(status))
    {
        visit.returnStatus = FailureOf(status);
    }
    RunAfterStep(visit, status);
}

// Both rows of a two-row type are visited; a failure in one doesn't stop the
// other. The walk ends when the object has vanished under way.
void WalkRows(Visit &visit)
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
        }
    }
}

// A header with just the OID and the type, all that a delete looks at. From
// calloc, so that the platform can release it.
ObjectPtr MakeStub(uint32_t oid)
{
    ObjectPtr stub(
        static_cast<DataObjHeader *>(std::calloc(1, sizeof(DataObjHeader))));
    if (stub == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: malloc Failed!!");
        return stub;
    }
    stub->objID = oid;
    stub->objType = static_cast<uint16_t>(GetObjType(oid));
    return stub;
}

bool IsSkipped(uint32_t objType)
{
    if (IsConfigType(objType))
    {
        QDB_LOG(kLogTrace,
                "%s: Skipping legacy DM Event for ObjType=0x%04x!!\n", objType);
        return true;
    }
    return false;
}

// Returns the record's result after this OID.
int VisitOid(const DataEventHeader &record, uint16_t eventType, uint32_t oid,
             int returnStatus)
{
    if (IsSkipped(GetObjType(oid)))
    {
        return returnStatus;
    }
    Visit visit = {eventType, oid, 0, nullptr, nullptr, returnStatus};
    if (eventType == DATA_EVENT_DATA_OBJ_DESTROY)
    {
        visit.object = MakeStub(oid);
        if (visit.object == nullptr)
        {
            return returnStatus;
        }
    }
    else
    {
        QDB_LOG(kLogTrace, "%s: Objcount =%d\n",
                static_cast<int>(*RecordWord(record, kObjCountAt)));
        visit.object = FetchObject(oid);
        if (visit.object == nullptr)
        {
            return ZO_STATUS_NO_SUCH_OBJECT;
        }
        if (IsSkipped(visit.object->objType))
        {
            return returnStatus;
        }
    }
    visit.objType = visit.object->objType;
    WalkRows(visit);
    return visit.returnStatus;
}

int Notify(const DataEventHeader *record, uint16_t eventType, bool untilStop)
{
    if (record == nullptr)
    {
        QDB_LOG(kLogTrace,
                "%s: Invalid Argument, notification not processed\n");
        return kInvalidArgument;
    }
    const uint32_t count = RecordWord(*record, kObjCountAt).value_or(0);
    if (count > kMaxObjCount ||
        kFirstOidAt + count * sizeof(uint32_t) > record->evtSize)
    {
        QDB_LOG(kLogTrace,
                "%s: Invalid Obj Count in ObjList, notification not processed "
                "pOL->objCount=%u\n",
                count);
        return kInvalidObjectCount;
    }
    const WorkAhead more;
    int returnStatus = SQLITE_OK;
    for (uint32_t i = 0; i < count && !(untilStop && StopRequested()); ++i)
    {
        const uint32_t at =
            kFirstOidAt + i * static_cast<uint32_t>(sizeof(uint32_t));
        returnStatus = VisitOid(*record, eventType, *RecordWord(*record, at),
                                returnStatus);
    }
    return returnStatus;
}

} // namespace

int ObjectNotification(const DataEventHeader *record, uint16_t eventType)
{
    return Notify(record, eventType, false);
}

int NotifyUntilStop(const DataEventHeader *record, uint16_t eventType)
{
    return Notify(record, eventType, true);
}

} // namespace qdb
