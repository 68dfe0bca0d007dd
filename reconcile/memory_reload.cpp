#include "reconcile/memory_reload.h"

#include "core/fate.h"
#include "core/log.h"
#include "core/platform_ptr.h"
#include "core/status.h"
#include "objects/handlers.h"
#include "objects/object_loop.h"
#include "objects/parents.h"
#include "reconcile/memory_checks.h"

namespace qdb
{

pthread_mutex_t gReLoadNCMutex = PTHREAD_MUTEX_INITIALIZER;

namespace
{

// In this order, since what the memory leaves in the findings judges the host's
// power, too.
constexpr Reload NCObjectsTable[] = {Reload::Memory, Reload::HostPower};

// One pass.
struct Pass
{
    Findings findings;
    int returnStatus = SQLITE_OK;
    unsigned visited = 0;
};

// One object of a pass, with the row of the list that it is on.
struct Visit
{
    const ObjTypeRow &row;
    uint32_t oid;
    ObjectPtr object;
    ObjectPtr parent;
    int returnStatus; // of the pass, so far
};

// Delete or create: an object that can't be read is tried again as it is.
template <typename Operation>
int RunAsItIs(const Visit &visit, Operation operation)
{
    return RunStatusLoop({}, visit.returnStatus, operation,
                         []
                         {
                             QDB_LOG(kLogTrace, "%s: ReLoadNCObjects: "
                                                "ZO_STATUS_INVALID_VALUE "
                                                "returned\n");
                             return ZO_STATUS_INVALID_VALUE;
                         });
}

int RunDelete(const Visit &visit)
{
    // As old as the object, which is then not out of date by it.
    Destroy destroy = {AgeOf(visit.object.get())};
    return RunAsItIs(visit,
                     [&]
                     {
                         return DeleteObject(visit.row, visit.object.get(),
                                             &destroy);
                     });
}

int RunCreate(const Visit &visit)
{
    QDB_LOG(kLogTrace, "%s: createobj_36 going to create object\n");
    return RunAsItIs(visit,
                     [&]
                     {
                         return RunOnNewest(visit.object.get(),
                                            [&](const DataObjHeader *pDOH)
                                            {
                                                return CreateObject(
                                                    visit.row, pDOH,
                                                    visit.parent.get());
                                            });
                     });
}

int RunRefresh(Visit &visit)
{
    return RunOnObject(
        "ReLoadNCObjects", visit.returnStatus, visit.oid, &visit.object,
        WhenGone::Fail,
        [&](const DataObjHeader *pDOH)
        {
            const int result =
                RefreshObject(visit.row, pDOH, visit.parent.get());
            QDB_LOG(kLogTrace, "%s: ReLoadNCObjects: RefreshObjFP retval=%d \n",
                    result);
            return result;
        });
}

// What is to be done with an object, in this order.
struct Actions
{
    bool remove = false;
    bool create = false;
    bool refresh = false;
};

// The first failure ends the chain. Returns the last status.
int RunActions(Visit &visit, const Actions &actions)
{
    int status = SQLITE_OK;
    if (actions.remove)
    {
        status = RunDelete(visit);
    }
    if (actions.create && IsSuccess(status))
    {
        status = RunCreate(visit);
    }
    if (actions.refresh && IsSuccess(status))
    {
        status = RunRefresh(visit);
    }
    return status;
}

// Whether nothing is wrong with an object, as far as its own type's findings
// go.
bool IsSkipped(const Visit &visit, const Findings &findings)
{
    if (ReloadOf(visit.object->objType) == Reload::Memory &&
        !findings.memoryRefresh && !findings.nvdimmRefresh)
    {
        QDB_LOG(kLogTrace,
                "%s: ReLoadNCObjects: OID = %x Refresh skipped for E1 objtype "
                "since value is same\n",
                visit.oid);
        return true;
    }
    if (ReloadOf(visit.object->objType) == Reload::HostPower &&
        !findings.powerRefresh && !findings.powerCreate)
    {
        QDB_LOG(kLogTrace,
                "%s: ReLoadNCObjects: OID = %x Refresh skipped for 0x36 "
                "objtype since value is same\n",
                visit.oid);
        return true;
    }
    return false;
}

// Past the skips the type counts no more: an object is also judged by what
// objects of the other type left in the findings.
Actions ChooseActions(const Findings &findings)
{
    const bool invalid = findings.memoryRefresh || findings.powerRefresh;
    const Actions actions = {invalid && !findings.powerCreate,
                             invalid || findings.powerCreate,
                             findings.nvdimmRefresh};
    if (actions.create)
    {
        const LogLevel level = invalid ? kLogError : kLogTrace;
        QDB_LOG(level, "%s: ReLoadNCObjects: deleting and recreating the "
                       "object with invalid data \n");
        QDB_LOG(level, "%s: Mem refresh:%d, power refresh:%d, created:%d \n",
                findings.memoryRefresh, findings.powerRefresh,
                findings.powerCreate);
    }
    return actions;
}

void Check(const Visit &visit, Findings *pFindings)
{
    switch (ReloadOf(visit.object->objType))
    {
    case Reload::Memory:
        CheckMemory(visit.object.get(), visit.oid, pFindings);
        break;
    case Reload::HostPower:
        CheckPower(visit.object.get(), visit.oid, pFindings);
        break;
    default:
        break;
    }
}

void VisitObject(Pass &pass, const ObjTypeRow &row, uint32_t oid)
{
    const BookEntry entry(Road::Reload);
    ObjectPtr object = FetchListed("ReLoadNCObjects", oid, &pass.returnStatus);
    if (object == nullptr)
    {
        return;
    }
    Visit visit = {row, oid, std::move(object), nullptr, pass.returnStatus};
    Check(visit, &pass.findings);
    visit.parent = FetchParent(visit.object.get(), nullptr, "ReLoadNCObjects ");
    ++pass.visited;
    QDB_LOG(kLogTrace, "%s:  p_Power_State_refresh_need = %d \n",
            pass.findings.powerRefresh);
    QDB_LOG(kLogTrace, "%s:  p_Power_State_create_need = %d \n",
            pass.findings.powerCreate);
    NoteFate(Fate::Unchanged);
    if (IsSkipped(visit, pass.findings))
    {
        return;
    }
    const int status = RunActions(visit, ChooseActions(pass.findings));
    if (!IsSuccess(status))
    {
        pass.returnStatus = FailureOf(status);
    }
}

void VisitRow(Pass &pass, const ObjTypeRow &row)
{
    const OidList list = ListChildren(row.objType);
    if (list.IsNull())
    {
        pass.returnStatus = ZO_STATUS_NO_SUCH_OBJECT;
        return;
    }
    for (const uint32_t oid : list.Oids())
    {
        VisitObject(pass, row, oid);
    }
}

} // namespace

int ReLoadNCObjects()
{
    QDB_LOG(kLogTrace, "%s: Entering ReLoadNCObjects \n");
    Pass pass;
    for (const Reload reload : NCObjectsTable)
    {
        VisitRow(pass, RowOf(reload));
    }
    QDB_LOG(kLogTrace, "%s: ReLoadNCObjects total objects created: %d \n",
            static_cast<int>(pass.visited));
    QDB_LOG(kLogTrace, "%s: Exiting ReLoadNCObjects \n");
    return pass.returnStatus;
}

} // namespace qdb
