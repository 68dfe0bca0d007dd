#include "reconcile/memory_checks.h"

#include "core/log.h"
#include "core/platform_ptr.h"
#include "db/mapping.h"
#include "objects/object_view.h"
#include "reconcile/memory_rows.h"

#include <algorithm>
#include <cstring>

namespace qdb
{
namespace
{

constexpr size_t kTypeDetailAt = 0xD0;
constexpr size_t kEnduranceAt = 0xF2;
constexpr size_t kPowerStateAt = 0x18;

constexpr uint16_t kNvdimmBit = 0x1000;

struct NvdimmCacheEntry
{
    uint32_t oid;
    uint8_t RemainingRatedWriteEndurance; // of the first pass that saw it
};

// Guarded by gReLoadNCMutex. Entries are never removed.
NvdimmCacheEntry gNvdimmCache[48]; // oid 0: unused
uint8_t gNvdimmCount = 0;

// A field outside the object counts as 0: it reads so from its row, too, which
// then holds NULL, so that a short object isn't written again on every pass.
template <typename T>
T Field(const DataObjHeader *pDOH, size_t offset)
{
    return ObjectView(pDOH).Read<T>(offset).value_or(T{0});
}

// An NVDIMM that finds no room goes unwatched.
void AddNvdimm(uint32_t oid, uint8_t endurance)
{
    if (gNvdimmCount == std::size(gNvdimmCache))
    {
        return;
    }
    gNvdimmCache[gNvdimmCount] = {oid, endurance};
    QDB_LOG(kLogTrace,
            "%s: ReLoadNCObjects: OID = %x not found in cache adding in cache "
            "RemainingRatedWriteEndurance = %d\n",
            oid, endurance);
    ++gNvdimmCount;
}

// Whether the endurance differs from the first one, which is kept: from its
// first change on the device is refreshed on every pass.
bool HasEnduranceChanged(uint32_t oid, uint8_t endurance)
{
    const NvdimmCacheEntry *entry =
        std::ranges::find(gNvdimmCache, oid, &NvdimmCacheEntry::oid);
    if (entry == std::end(gNvdimmCache))
    {
        AddNvdimm(oid, endurance);
        return false;
    }
    if (entry->RemainingRatedWriteEndurance == endurance)
    {
        QDB_LOG(kLogTrace,
                "%s: ReLoadNCObjects: OID = %x found in cache "
                "RemainingRatedWriteEndurance value is not changed refresh "
                "skipped\n",
                oid);
        return false;
    }
    QDB_LOG(kLogTrace,
            "%s: ReLoadNCObjects: OID = %x found in cache "
            "RemainingRatedWriteEndurance value changed refresh initiated\n",
            oid);
    return true;
}

// Whether the row's key is one that no memory device has.
bool HasInvalidKey(const DataObjHeader *pDOH, uint32_t oid)
{
    const auto key = GetKeyForDIMM(oid);
    if (key == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: ReLoadNCObjects: key is NULL\n");
        return false;
    }
    if (std::strstr(key.get(), "DIMM") == nullptr)
    {
        QDB_LOG(kLogError,
                "%s: ReLoadNCObjects: pDOH->objType=%x, OID = %x memorytype = "
                "DIMM, Key is invalid need refresh\n",
                pDOH->objType, oid);
        return true;
    }
    QDB_LOG(kLogTrace,
            "%s: ReLoadNCObjects: pDOH->objType=%x, OID = %x memorytype = "
            "DIMM, Key is valid no need to refresh\n",
            pDOH->objType, oid);
    return false;
}

} // namespace

void CheckMemory(const DataObjHeader *pDOH, uint32_t oid, Findings *pFindings)
{
    const auto typedetail = Field<uint16_t>(pDOH, kTypeDetailAt);
    QDB_LOG(kLogTrace,
            "%s: ReLoadNCObjects: pDOH->objType=%x, OID = %d typedetail = "
            "%d\n",
            pDOH->objType, StoredOid(oid), typedetail);
    const bool nvdimm = (typedetail & kNvdimmBit) != 0;
    QDB_LOG(kLogTrace,
            "%s: ReLoadNCObjects: pDOH->objType=%x, OID = %x memorytype = "
            "%s\n",
            pDOH->objType, oid, nvdimm ? "NVDIMM" : "DIMM");
    if (nvdimm)
    {
        pFindings->nvdimmRefresh =
            HasEnduranceChanged(oid, Field<uint8_t>(pDOH, kEnduranceAt));
    }
    pFindings->memoryRefresh = HasInvalidKey(pDOH, oid);
}

void CheckPower(const DataObjHeader *pDOH, uint32_t oid, Findings *pFindings)
{
    const OidList parents = ListParents(oid);
    if (parents.IsNull())
    {
        return;
    }
    const auto powerstate = Field<uint8_t>(pDOH, kPowerStateAt);
    const uint8_t rowState = GetHostPowerSate(oid);
    static_cast<void>(CheckHostPowerSulpplyObjCountInDB(&pFindings->powerRows));
    const int parentCount = static_cast<int>(parents.Oids().size());
    QDB_LOG(kLogTrace, "%s: dbpowerstate = %d\n", rowState);
    QDB_LOG(kLogTrace, "%s: DM Power obj count = %d\n", parentCount);
    QDB_LOG(kLogTrace, "%s: DM rowCount obj count = %d\n",
            pFindings->powerRows);
    const bool sameCount = parentCount == pFindings->powerRows;
    pFindings->powerRefresh = powerstate != rowState || !sameCount;
    pFindings->powerCreate = !sameCount;
    if (pFindings->powerRefresh)
    {
        QDB_LOG(kLogError,
                "%s: ReLoadNCObjects: pDOH->objType=%x, OID = %d DM "
                "powerstate = %d db and dm powerstae not same,need refresh\n",
                pDOH->objType, StoredOid(oid), powerstate);
    }
}

} // namespace qdb
