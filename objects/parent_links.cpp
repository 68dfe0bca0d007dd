#include "objects/parent_links.h"

#include "core/log.h"
#include "core/platform_ptr.h"
#include "db/mapping.h"

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
    InsertInParentChildMappingTable(oid, parentOid);
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

} // namespace qdb
