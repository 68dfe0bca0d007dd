#include "reconcile/fru_reload.h"

#include "core/log.h"
#include "core/platform_ptr.h"
#include "core/status.h"
#include "db/execute.h"
#include "objects/handlers.h"
#include "objects/object_view.h"
#include "objects/parents.h"
#include "reconcile/fru_cache.h"

#include <cstring>

namespace qdb
{
namespace
{

constexpr size_t kSerialNumberWordAt = 0x1D;

// "" where there is none that ends inside the object.
const char *TextAt(const DataObjHeader *pDOH, size_t wordAt)
{
    return ObjectView(pDOH).TextOfWord(wordAt).value_or("").data();
}

// Refreshes one FRU in a status loop; one that cannot be read as it stands is
// fetched again, and again while it is gone.
void RefreshWithRetry(uint32_t oid, ObjectPtr object,
                      const DataObjHeader *parent, int *pStatus)
{
    const int status = RunStatusLoop(
        {}, *pStatus,
        [&]
        {
            if (object == nullptr)
            {
                return ZO_STATUS_INVALID_VALUE;
            }
            const int result =
                RefreshObject(RowOf(Reload::Fru), object.get(), parent);
            QDB_LOG(kLogTrace,
                    "%s: ReLoadFRUNCObjects: RefreshObjFP retval=%d \n",
                    result);
            return result;
        },
        [&]
        {
            QDB_LOG(kLogTrace, "%s: ReLoadFRUNCObjects: "
                               "ZO_STATUS_INVALID_VALUE returned\n");
            object.reset();
            object = FetchObject(oid);
            if (object == nullptr)
            {
                *pStatus = ZO_STATUS_NO_SUCH_OBJECT;
            }
            return ZO_STATUS_INVALID_VALUE;
        });
    if (!IsSuccess(status))
    {
        *pStatus = kFailed;
    }
}

void VisitFru(uint32_t oid, int *pStatus)
{
    ObjectPtr object = FetchObject(oid);
    if (object == nullptr)
    {
        *pStatus = ZO_STATUS_NO_SUCH_OBJECT;
        return;
    }
    QDB_LOG(kLogTrace,
            "%s: ReLoadFRUNCObjects: pDOH->objType=%d, pDOH->objType=0x%x\n",
            object->objType, object->objType);
    const char *key = TextAt(object.get(), kKeyWordAt);
    if (std::strstr(key, "Disk.Bay") == nullptr)
    {
        return;
    }
    QDB_LOG(kLogTrace, "%s: PCISSD Obj Present: %s\n", key);
    const bool refresh =
        WatchFRU(oid, TextAt(object.get(), kSerialNumberWordAt));
    const ObjectPtr parent =
        FetchParent(object.get(), nullptr, "ReLoadFRUNCObjects ");
    if (!refresh)
    {
        QDB_LOG(kLogTrace,
                "%s: ReLoadFRUNCObjects: OID = %x Refresh skipped as cached "
                "data is same\n",
                oid);
        return;
    }
    RefreshWithRetry(oid, std::move(object), parent.get(), pStatus);
}

int VisitFrus()
{
    const OidList list = ListChildren(RowOf(Reload::Fru).objType);
    if (list.IsNull())
    {
        return ZO_STATUS_NO_SUCH_OBJECT;
    }
    int status = SQLITE_OK;
    for (const uint32_t oid : list.Oids())
    {
        VisitFru(oid, &status);
    }
    return status;
}

} // namespace

int ReLoadFRUNCObjects()
{
    QDB_LOG(kLogTrace, "%s: Entering ReLoadFRUNCObjects \n");
    const int status = VisitFrus();
    LogFRUCache();
    QDB_LOG(kLogTrace, "%s: Exiting ReLoadFRUNCObjects \n");
    return status;
}

} // namespace qdb
