#include "reconcile/population.h"

#include "config/bus_rows.h"
#include "config/config_load.h"
#include "core/fate.h"
#include "core/log.h"
#include "core/status.h"
#include "core/supervisor.h"
#include "core/threads.h"
#include "db/turn.h"
#include "objects/handlers.h"
#include "objects/object_loop.h"
#include "objects/parents.h"
#include "objects/predicates.h"

#include <algorithm>

namespace qdb
{
namespace
{

// One walk: who makes it, for the log, and its result so far.
struct Walk
{
    const char *function;
    int returnStatus = SQLITE_OK;
    unsigned visited = 0; // objects that reached the predicate
};

void CreateWithRetry(Walk &walk, const ObjTypeRow &row, uint32_t oid,
                     ObjectPtr object, const DataObjHeader *parent)
{
    const int status = RunOnObject(walk.function, walk.returnStatus, oid,
                                   &object, WhenGone::FetchAgain,
                                   [&](const DataObjHeader *pDOH)
                                   {
                                       return CreateObject(row, pDOH, parent);
                                   });
    if (!IsSuccess(status))
    {
        walk.returnStatus = FailureOf(status);
    }
}

void VisitObject(Walk &walk, const ObjTypeRow &row, uint32_t oid)
{
    const BookEntry entry(Road::Population, Arrival::Counted);
    ObjectPtr object = FetchListed(walk.function, oid, &walk.returnStatus);
    if (object == nullptr)
    {
        return;
    }
    const ObjectPtr parent = FetchParent(object.get(), nullptr);
    ++walk.visited;
    if (!Applies(row, object.get(), parent.get()))
    {
        return;
    }
    CreateWithRetry(walk, row, oid, std::move(object), parent.get());
}

void VisitObjects(Walk &walk, const ObjTypeRow &row, const OidList &list)
{
    const WorkAhead more;
    CountArrivals(Road::Population, list.Oids().size());
    ListEntry entry(Road::Population, list.Oids().size());
    for (const uint32_t oid : list.Oids())
    {
        if (StopRequested())
        {
            return;
        }
        entry.TakeOne();
        VisitObject(walk, row, oid);
    }
}

void LoadConfigRow(const ObjTypeRow &row, const ConfigObjectList &groups)
{
    const BusRow &entry = *FindBusRow(row.objType);
    QDB_LOG(kLogTrace, "%s: Calling OnLoadConfigObjectsCreation(%s)\n",
            entry.shortName);
    const int status =
        OnLoadConfigObjectsCreation(entry.interfaceName, &groups);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace,
                "%s: OnLoadConfigObjectsCreation: Returned error c_retval= "
                "0x%08x\n",
                static_cast<unsigned>(status));
    }
}

void VisitRow(Walk &walk, const ObjTypeRow &row, const ConfigObjectList &groups)
{
    if (row.Has(Trait::Attribute))
    {
        LoadConfigRow(row, groups);
        return;
    }
    const OidList list = ListChildren(row.objType);
    if (list.IsNull())
    {
        walk.returnStatus = ZO_STATUS_NO_SUCH_OBJECT;
        return;
    }
    VisitObjects(walk, row, list);
}

// The row whose Create a walk of one type uses. A type that has none, or that
// doesn't come from the Data Manager, falls back to the first row of all.
const ObjTypeRow &RowForType(uint32_t objType)
{
    if (IsConfigType(objType))
    {
        for (size_t i = 0; i < ObjectTypeTable.size(); ++i)
        {
            QDB_LOG(kLogTrace,
                    "%s: Skipping legacy DM Event for ObjType=0x%04x!!\n",
                    objType);
        }
        return ObjectTypeTable[0];
    }
    const ObjTypeRow *row = FindRow(objType);
    return row == nullptr ? ObjectTypeTable[0] : *row;
}

// Some types have two rows, for objects of two kinds.
bool IsFirstOfType(const ObjTypeRow &row)
{
    return FindRow(row.objType) == &row;
}

} // namespace

int OnLoadObjectsCreation()
{
    QDB_LOG(kLogTrace, "%s: Entering OnLoadObjectsCreation \n");
    ConfigObjectList groups;
    if (groups.Fetch(kConfigGroup) != 0)
    {
        QDB_LOG(kLogError, "%s: Objects not found: CfgGroup 1\n");
        return ZO_STATUS_NO_SUCH_OBJECT;
    }
    Walk walk = {"OnLoadObjectsCreation"};
    const auto all = std::ranges::count_if(ObjectTypeTable, IsFirstOfType);
    std::ptrdiff_t types = 0;
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        if (StopRequested())
        {
            break;
        }
        if (IsFirstOfType(row))
        {
            TellStatus("filling: %td of %td types", ++types, all);
            Put(Figures().typesFilled, static_cast<uint64_t>(types));
            Put(Figures().types, static_cast<uint64_t>(all));
        }
        VisitRow(walk, row, groups);
    }
    QDB_LOG(kLogTrace, "%s: OnLoadObjectsCreation total objects created: %d \n",
            static_cast<int>(walk.visited));
    QDB_LOG(kLogTrace, "%s: Exiting OnLoadObjectsCreation \n");
    return walk.returnStatus;
}

int InsertObjBasedOnObjType(uint32_t objType)
{
    const OidList list = ListChildren(objType);
    if (list.IsNull())
    {
        return ZO_STATUS_NO_SUCH_OBJECT;
    }
    Walk walk = {"InsertObjBasedOnObjType"};
    VisitObjects(walk, RowForType(objType), list);
    return walk.returnStatus;
}

} // namespace qdb
