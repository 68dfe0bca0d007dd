#include "reconcile/parent.h"

#include "core/log.h"
#include "core/status.h"
#include "db/mapping.h"

namespace qdb
{

int GetParentDOH(const DataObjHeader *pDOH, DataObjHeader **ppParentDOH)
{
    if (pDOH == nullptr)
    {
        QDB_LOG(kLogInvalid, "%s: Error: pDOH is NULL \n");
        return kFailed;
    }
    const OidList parents = ListParents(pDOH->objID);
    if (parents.IsNull())
    {
        QDB_LOG(kLogInvalid, "%s: Error: ZOILListParentOID returned NULL \n");
        return kFailed;
    }
    int status = SQLITE_OK;
    for (const uint32_t oid : parents.Oids())
    {
        if (ObjectPtr parent = FetchRelated(oid))
        {
            QDB_LOG(kLogTrace, "%s: ZOILGetObjByOID success for OID = %d\n",
                    StoredOid(oid));
            *ppParentDOH = parent.release();
            break;
        }
        QDB_LOG(kLogTrace, "%s: ZOILGetObjByOID returned NULL!!! for OID = %d",
                StoredOid(oid));
        status = ZO_STATUS_NO_SUCH_OBJECT;
    }
    return status;
}

ObjectPtr FetchParent(const DataObjHeader *pDOH, int *pStatus,
                      const char *prefix)
{
    DataObjHeader *found = nullptr;
    const int status = GetParentDOH(pDOH, &found);
    ObjectPtr parent(found);
    if (status != SQLITE_OK || parent == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: %sParent Object not found\n", prefix);
    }
    else
    {
        QDB_LOG(kLogTrace, "%s: %sParent Object found pParentDOH=%d\n", prefix,
                StoredOid(parent->objID));
    }
    if (pStatus != nullptr)
    {
        *pStatus = status;
    }
    return parent;
}

} // namespace qdb
