#include "reconcile/fail_drain.h"

#include "core/fate.h"
#include "core/log.h"
#include "core/platform_ptr.h"
#include "core/state.h"
#include "objects/handlers.h"
#include "objects/object_loop.h"
#include "objects/parents.h"
#include "queues/fail_queue.h"

#include <algorithm>
#include <memory>

// All lines of a drain begin alike.
#define LOG_DRAIN(format, ...)                                                 \
    QDB_LOG(kLogTrace,                                                         \
            "%s: CheckDMObjCountandReCreateEntries__: " format __VA_OPT__(, )  \
                __VA_ARGS__)

namespace qdb
{
namespace
{

using FailNodePtr = std::unique_ptr<QdbFailQNode, CFree>;

// What a node is about, once its object has been found.
struct Repetition
{
    const QdbFailQNode &node;
    const DataObjHeader *pDOH;
    const DataObjHeader *pParentDOH;
};

int LogResult(const Repetition &what, const char *name, int status)
{
    LOG_DRAIN("%s function for OID=0x%x objtype=%d return status %d", name,
              what.node.oid, what.pDOH->objType, status);
    return status;
}

// `name` is Delete or Create, as the lines have it; the first place stands for
// no type and has no row.
template <typename Operation>
int RepeatByIndex(const Repetition &what, const char *name, Operation operation)
{
    LOG_DRAIN("Calling %s Function for OID=0x%x objtype=%d", name,
              what.node.oid, what.pDOH->objType);
    const ObjTypeRow *row = RowOfFailIndex(what.node.index);
    return LogResult(what, name, row == nullptr ? 0 : operation(*row));
}

// The handler of the one type that keeps refreshes is taken whatever the type.
int RepeatRefresh(const Repetition &what)
{
    LOG_DRAIN("Calling Refresh Function");
    const ObjTypeRow &row =
        *std::ranges::find_if(ObjectTypeTable,
                              [](const ObjTypeRow &any)
                              {
                                  return any.Has(Trait::RetriesRefresh);
                              });
    return LogResult(what, "Refresh",
                     RefreshObject(row, what.pDOH, what.pParentDOH));
}

// A refresh that found no row is made good by a create, unless the OID belongs
// to an object of another type by now.
int RepeatRefreshFailure(const Repetition &what)
{
    LOG_DRAIN("Handling Refresh Failure case for OID=0x%x objtype=%d",
              what.node.oid, what.pDOH->objType);
    if (QdbFailObjTypeIndex(what.pDOH->objType) != what.node.index)
    {
        QDB_LOG(kLogTrace,
                "%s: ObjectType is not Same as refresh failure case for "
                "OID=0x%x objtype=%d\n",
                what.node.oid, what.pDOH->objType);
        return SQLITE_OK;
    }
    const ObjTypeRow *row = RowOfFailIndex(what.node.index);
    return row == nullptr ? SQLITE_OK
                          : CreateObject(*row, what.pDOH, what.pParentDOH);
}

int Repeat(const Repetition &what)
{
    switch (what.node.operation)
    {
    case FailedOperation::Delete:
        return RepeatByIndex(what, "Delete",
                             [&](const ObjTypeRow &row)
                             {
                                 return DeleteObject(row, what.pDOH);
                             });
    case FailedOperation::Create:
        return RepeatByIndex(what, "Create",
                             [&](const ObjTypeRow &row)
                             {
                                 return CreateObject(row, what.pDOH,
                                                     what.pParentDOH);
                             });
    case FailedOperation::Refresh:
        return RepeatRefresh(what);
    case FailedOperation::RefreshFailure:
        return RepeatRefreshFailure(what);
    }
    return SQLITE_OK;
}

void DrainNode(const QdbFailQNode &node)
{
    const BookEntry entry(Road::Drain, Arrival::Counted);
    LOG_DRAIN("Fail Dequeue Entry Processing for OID=0x%x\n", node.oid);
    const ObjectPtr object = FetchObject(node.oid);
    if (object == nullptr)
    {
        LOG_DRAIN("DM object not found for OID=0x%x\n", node.oid);
        return;
    }
    LOG_DRAIN("pDOH->objType=%d, pDOH->objType=0x%x\n", object->objType,
              object->objType);
    const ObjectPtr parent = FetchParent(
        object.get(), nullptr, "CheckDMObjCountandReCreateEntries__:");
    // Its event, or another failure, may have come first: a row that has gone
    // since the object was fetched must not come back.
    static_cast<void>(RunOnNewest(object.get(),
                                  [&](const DataObjHeader *pDOH)
                                  {
                                      return Repeat({node, pDOH, parent.get()});
                                  }));
}

} // namespace

void DrainFailQueue()
{
    FailQueue *queue = gFailQueue;
    // Nodes that are added from here on wait for the next drain.
    const int count = queue->count;
    if (count == 0)
    {
        LOG_DRAIN("No entries in Fail queue");
        return;
    }
    LOG_DRAIN("fail_queue_size currently = %d", count);
    for (int i = 0; i < count; ++i)
    {
        const FailNodePtr node(QdbFaildeQueue(queue));
        if (node == nullptr)
        {
            LOG_DRAIN("Fail Node is NULL");
            continue;
        }
        DrainNode(*node);
    }
}

} // namespace qdb
