#include "reconcile/fail_drain.h"

#include "core/log.h"
#include "core/platform_ptr.h"
#include "core/state.h"
#include "objects/catalogue.h"
#include "queues/fail_queue.h"
#include "reconcile/parent.h"

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

constexpr uint32_t kJob = 0xA03;

using FailNodePtr = std::unique_ptr<QdbFailQNode, CFree>;

// The handlers of the types whose failures are kept, by their position in the
// sorted list; NULL at the first, which stands for no type.
const ObjTypeRow *RowOfIndex(int index)
{
    const auto types = FailTypes();
    return index <= 0 || static_cast<size_t>(index) >= types.size()
               ? nullptr
               : FindRow(
                     static_cast<uint32_t>(types[static_cast<size_t>(index)]));
}

CreateFunction FailCreateObjFP(int index)
{
    const ObjTypeRow *row = RowOfIndex(index);
    return row == nullptr ? nullptr : row->CreateObjFP;
}

DeleteFunction FailDeleteObjFP(int index)
{
    const ObjTypeRow *row = RowOfIndex(index);
    return row == nullptr ? nullptr : row->DeleteObjFP;
}

// What a node is about, once its object has been found.
struct Repetition
{
    const QdbFailQNode &node;
    const DataObjHeader *pDOH;
    const DataObjHeader *pParentDOH;
};

void LogResult(const Repetition &what, const char *name, int status)
{
    LOG_DRAIN("%s function for OID=0x%x objtype=%d return status %d", name,
              what.node.oid, what.pDOH->objType, status);
}

// `name` is Delete or Create, as the lines have it.
template <typename Function, typename... Arguments>
void RepeatByIndex(const Repetition &what, const char *name, Function function,
                   Arguments... arguments)
{
    LOG_DRAIN("Calling %s Function for OID=0x%x objtype=%d", name,
              what.node.oid, what.pDOH->objType);
    LogResult(what, name, function == nullptr ? 0 : function(arguments...));
}

// Only jobs keep refreshes; their handler is taken whatever the type.
void RepeatRefresh(const Repetition &what)
{
    LOG_DRAIN("Calling Refresh Function");
    LogResult(what, "Refresh",
              FindRow(kJob)->RefreshObjFP(what.pDOH, what.pParentDOH));
}

// A refresh that found no row is made good by a create, unless the OID belongs
// to an object of another type by now.
void RepeatRefreshFailure(const Repetition &what)
{
    LOG_DRAIN("Handling Refresh Failure case for OID=0x%x objtype=%d",
              what.node.oid, what.pDOH->objType);
    if (QdbFailObjTypeIndex(what.pDOH->objType) != what.node.index)
    {
        QDB_LOG(kLogTrace,
                "%s: ObjectType is not Same as refresh failure case for "
                "OID=0x%x objtype=%d\n",
                what.node.oid, what.pDOH->objType);
        return;
    }
    if (const CreateFunction function = FailCreateObjFP(what.node.index))
    {
        function(what.pDOH, what.pParentDOH);
    }
}

void Repeat(const Repetition &what)
{
    switch (what.node.operation)
    {
    case FailedOperation::Delete:
        RepeatByIndex(what, "Delete", FailDeleteObjFP(what.node.index),
                      what.pDOH);
        break;
    case FailedOperation::Create:
        RepeatByIndex(what, "Create", FailCreateObjFP(what.node.index),
                      what.pDOH, what.pParentDOH);
        break;
    case FailedOperation::Refresh:
        RepeatRefresh(what);
        break;
    case FailedOperation::RefreshFailure:
        RepeatRefreshFailure(what);
        break;
    }
}

void DrainNode(const QdbFailQNode &node)
{
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
    Repeat({node, object.get(), parent.get()});
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
