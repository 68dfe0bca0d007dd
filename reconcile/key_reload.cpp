#include "reconcile/key_reload.h"

#include "core/fate.h"
#include "core/log.h"
#include "core/object_order.h"
#include "core/status.h"
#include "db/execute.h"
#include "objects/handlers.h"
#include "objects/parents.h"

namespace qdb
{

pthread_mutex_t gReLoadKeyBasedNCMutex = PTHREAD_MUTEX_INITIALIZER;

namespace
{

constexpr char kReload[] = "ReLoadKeyBasedNCObjects";

// The only row; its copy is guarded by gReLoadKeyBasedNCMutex.
KeyedRow gSystemInfo = {"91||System.Embedded.1", "", 0x91};

int Write(const KeyedRow &row, const DataObjHeader *object, RowWrite write)
{
    const ObjTypeRow &handlers = *FindRow(row.objType);
    if (write == RowWrite::Refresh)
    {
        return RefreshObject(handlers, object, nullptr);
    }
    DataObjHeader *found = nullptr;
    static_cast<void>(GetParentDOH(object, &found));
    const ObjectPtr parent(found);
    QDB_LOG(kLogError, "%s: Insert the row\n");
    return CreateObject(handlers, object, parent.get());
}

} // namespace

ObjectPtr FetchKeyedObject()
{
    return FetchByKey(gSystemInfo.key);
}

int ReLoadKeyBasedNCObjects()
{
    QDB_LOG(kLogTrace, "%s: Entering ReLoadKeyBasedNCObjects \n");
    QDB_LOG(kLogTrace, "%s: ReLoadKeyBasedNCObjects: key=%s\n",
            gSystemInfo.key);
    const BookEntry entry(Road::Reload);
    ObjectPtr object = FetchKeyedObject();
    if (object == nullptr)
    {
        return ZO_STATUS_NO_SUCH_OBJECT;
    }
    NoteFate(Fate::Unchanged);
    int status = SQLITE_OK;
    const RowWrite write = ChooseWrite(gSystemInfo, object.get(), kReload);
    if (write != RowWrite::None)
    {
        status = ReLoadKeyBasedNCObject(std::move(object), gSystemInfo, write);
    }
    QDB_LOG(kLogTrace, "%s: Exiting ReLoadKeyBasedNCObjects \n");
    return status;
}

int ReLoadKeyBasedNCObject(ObjectPtr object, KeyedRow &row, RowWrite write)
{
    if (!row.cached.Store(object.get()))
    {
        NoteFate(Fate::NoMemory);
        QDB_LOG(kLogError,
                "%s: ReLoadKeyBasedNCObjects: Memory allocation failed\n");
        return kNoMemory;
    }
    const FetchesAgain fetchesAgain;
    const int status = RunStatusLoop(
        {}, SQLITE_OK,
        [&]
        {
            return Write(row, object.get(), write);
        },
        [&]
        {
            QDB_LOG(kLogTrace, "%s: ReLoadKeyBasedNCObjects: "
                               "ZO_STATUS_INVALID_VALUE returned\n");
            object.reset();
            object = FetchByKey(row.key);
            return object == nullptr ? ZO_STATUS_NO_SUCH_OBJECT
                                     : ZO_STATUS_INVALID_VALUE;
        });
    if (IsSuccess(status))
    {
        return SQLITE_OK;
    }
    return object == nullptr ? ZO_STATUS_NO_SUCH_OBJECT : FailureOf(status);
}

} // namespace qdb
