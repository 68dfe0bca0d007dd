#include "reconcile/type_reload.h"

#include "core/fate.h"
#include "core/log.h"
#include "core/status.h"
#include "db/clearing.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "objects/cached_object.h"
#include "objects/handlers.h"
#include "objects/object_loop.h"
#include "objects/parents.h"

#include <algorithm>

namespace qdb
{

pthread_mutex_t gObjTypeBasedNCMutex = PTHREAD_MUTEX_INITIALIZER;

namespace
{

struct TypeRow
{
    const ObjTypeRow *row;
    CachedObject cached = {};
    uint32_t cachedOid = 0;
};

constexpr bool IsDevice(const ObjTypeRow &row)
{
    return row.reload == Reload::Device;
}

constexpr auto MakeTypeRows()
{
    std::array<TypeRow, std::ranges::count_if(ObjectTypeTable, IsDevice)> made;
    auto next = made.begin();
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        if (IsDevice(row))
        {
            *next++ = {&row};
        }
    }
    return made;
}

// Guarded by gObjTypeBasedNCMutex.
auto ObjTypeBasedNCObjTable = MakeTypeRows();

void LogCleared()
{
    QDB_LOG(kLogTrace, "%s: ObjTypeBasedNCObjRefreshHandling: Cleared previous "
                       "record\n");
}

// The object is gone, so only its OID is left to delete its row by.
void ClearPrevious(TypeRow &row)
{
    if (row.cached.copy == nullptr)
    {
        return;
    }
    QDB_LOG(kLogTrace, "%s: ObjTypeBasedNCObjRefreshHandling: Previous record "
                       "found\n");
    row.cached.Clear();
    DeleteNCObjsBasedOnOID(row.cachedOid);
    LogCleared();
}

// Whether the object's row is to be replaced; logs why.
bool Differs(const TypeRow &row, const DataObjHeader *pDOH)
{
    switch (row.cached.Compare(pDOH))
    {
    case Difference::NoCopy:
        QDB_LOG(kLogTrace, "%s: ObjTypeBasedNCObjects: No previous record. Add "
                           "entry.\n");
        return true;
    case Difference::Size:
        QDB_LOG(kLogTrace, "%s: ObjTypeBasedNCObjects: Data size mismatch. "
                           "Recreate entry.\n");
        return true;
    case Difference::Bytes:
        QDB_LOG(kLogTrace, "%s: ObjTypeBasedNCObjects: memcmp mismatch. "
                           "Recreate entry. \n");
        return true;
    default:
        return false;
    }
}

void VisitObject(size_t rowIndex, uint32_t oid, int *pStatus)
{
    const BookEntry entry(Road::Reload);
    TypeRow &row = ObjTypeBasedNCObjTable[rowIndex];
    const ObjectPtr object = FetchObject(oid);
    if (object == nullptr)
    {
        QDB_LOG(kLogTrace,
                "%s: ObjTypeBasedNCObjRefreshHandling: ZOILGetObjByOID failed "
                "for objid=%d\n",
                StoredOid(oid));
        ClearPrevious(row);
        *pStatus = ZO_STATUS_NO_SUCH_OBJECT;
        return;
    }
    QDB_LOG(kLogTrace,
            "%s: ObjTypeBasedNCObjects: pDOH->objType=%d, "
            "pDOH->objType=0x%x\n",
            object->objType, object->objType);
    const ObjectPtr parent =
        FetchParent(object.get(), nullptr, "ObjTypeBasedNCObjects ");
    NoteFate(Fate::Unchanged);
    if (Differs(row, object.get()))
    {
        *pStatus = ObjTypeBasedNCObjRefreshHandling(object.get(), parent.get(),
                                                    oid, rowIndex);
    }
}

void VisitRow(size_t rowIndex, int *pStatus)
{
    TypeRow &row = ObjTypeBasedNCObjTable[rowIndex];
    const OidList list = ListChildren(row.row->objType);
    if (list.IsNull())
    {
        QDB_LOG(kLogTrace,
                "%s: ObjTypeBasedNCObjRefreshHandling: ZOILListChildOIDByType "
                "failed for objtype=0x%x\n",
                row.row->objType);
        ClearPrevious(row);
        *pStatus = ZO_STATUS_NO_SUCH_OBJECT;
        return;
    }
    for (const uint32_t oid : list.Oids())
    {
        VisitObject(rowIndex, oid, pStatus);
        if (*pStatus == kNoMemory)
        {
            return;
        }
    }
}

// Runs a handler in a status loop. Returns the result so far, or the failure
// that takes its place.
template <typename Operation>
int Run(int result, Operation operation)
{
    const int status = RunStatusLoop({}, result, operation);
    return IsSuccess(status) ? result : FailureOf(status);
}

} // namespace

int ObjTypeBasedNCObjects()
{
    int status = SQLITE_OK;
    for (size_t i = 0;
         i < std::size(ObjTypeBasedNCObjTable) && status != kNoMemory; ++i)
    {
        VisitRow(i, &status);
    }
    return status;
}

int ObjTypeBasedNCObjRefreshHandling(const DataObjHeader *pDOH,
                                     const DataObjHeader *pParentDOH,
                                     uint32_t oid, size_t rowIndex)
{
    TypeRow &row = ObjTypeBasedNCObjTable[rowIndex];
    const ObjTypeRow &handlers = *row.row;
    int result = SQLITE_OK;
    if (row.cached.copy != nullptr)
    {
        row.cached.Clear();
        // As old as the object, which is then not out of date by it.
        Destroy destroy = {AgeOf(pDOH)};
        result = Run(result,
                     [&]
                     {
                         return DeleteObject(handlers, pDOH, &destroy);
                     });
        LogCleared();
    }
    if (!row.cached.Store(pDOH))
    {
        NoteFate(Fate::NoMemory);
        QDB_LOG(kLogError, "%s: ObjTypeBasedNCObjRefreshHandling: Memory "
                           "allocation failed\n");
        return kNoMemory;
    }
    row.cachedOid = oid;
    return Run(result,
               [&]
               {
                   return RunOnNewest(pDOH,
                                      [&](const DataObjHeader *newest)
                                      {
                                          return CreateObject(handlers, newest,
                                                              pParentDOH);
                                      });
               });
}

} // namespace qdb
