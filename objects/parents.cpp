#include "objects/parents.h"

#include "core/fate.h"
#include "core/log.h"
#include "core/status.h"
#include "db/mapping.h"
#include "objects/catalogue.h"

#include <algorithm>
#include <bitset>
#include <span>

namespace qdb
{
namespace
{

void RecordLink(uint32_t oid, uint32_t parentOid, bool parentFound)
{
    if (!parentFound)
    {
        QDB_LOG(kLogTrace,
                "%s: ZOILGetObjByOID returned NULL!!! for OID = 0x%x\n",
                parentOid);
        return;
    }
    QDB_LOG(kLogTrace,
            "%s: ZOILGetObjByOID success for OID = 0x%x and POID = 0x%x \n",
            oid, parentOid);
    if (InsertInParentChildMappingTable(oid, parentOid) != SQLITE_OK)
    {
        NoteLack();
    }
}

// Links are fetched and recorded in blocks, so that a create whose row is
// written needs no memory for them.
constexpr size_t kLinkBlock = 64;

// At most kLinkBlock parents.
void RecordLinks(uint32_t oid, std::span<const uint32_t> parentOids)
{
    std::bitset<kLinkBlock> found;
    for (size_t i = 0; i < parentOids.size(); ++i)
    {
        found[i] = FetchRelated(parentOids[i]) != nullptr;
    }
    for (size_t i = 0; i < parentOids.size(); ++i)
    {
        RecordLink(oid, parentOids[i], found[i]);
    }
}

} // namespace

void RefreshParentChildMapping(const DataObjHeader *pDOH, uint32_t oid)
{
    const OidList parents = ListParents(pDOH->objID);
    if (parents.IsNull())
    {
        // The Data Manager knows nothing of attributes.
        if (!IsConfigType(pDOH->objType))
        {
            NoteLack();
        }
        return;
    }
    std::span<const uint32_t> left = parents.Oids();
    while (!left.empty())
    {
        const auto block = left.first(std::min(kLinkBlock, left.size()));
        left = left.subspan(block.size());
        RecordLinks(oid, block);
    }
}

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
        NoteLack();
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
