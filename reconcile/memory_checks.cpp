#include "reconcile/memory_checks.h"

#include "core/log.h"
#include "core/platform_ptr.h"
#include "core/status.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "objects/object_view.h"
#include "reconcile/look_up.h"

#include <algorithm>
#include <cstring>

namespace qdb
{
namespace
{

using TextPtr = std::unique_ptr<char, CFree>;

TextPtr CopyText(sqlite3_stmt *statement, int column)
{
    const char *text =
        reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
    if (text == nullptr)
    {
        QDB_LOG(kLogTrace,
                "%s: GetKeyForDIMM: sqlite3_column_text returned NULL\n");
        return nullptr;
    }
    const size_t size = std::strlen(text) + 1;
    TextPtr copy(static_cast<char *>(std::malloc(size)));
    if (copy == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: GetKeyForDIMM: malloc failed\n");
        return nullptr;
    }
    std::memcpy(copy.get(), text, size);
    QDB_LOG(kLogTrace, "%s: old key = %s ckey = %s", text, copy.get());
    return copy;
}

// The column's text; a value of another type is only logged.
TextPtr TextOf(sqlite3_stmt *statement, int column)
{
    switch (sqlite3_column_type(statement, column))
    {
    case SQLITE_TEXT:
        return CopyText(statement, column);
    case SQLITE_INTEGER:
        QDB_LOG(kLogTrace, "%s: Column: %d, ",
                sqlite3_column_int(statement, column));
        return nullptr;
    case SQLITE_FLOAT:
        QDB_LOG(kLogTrace, "%s: Column: %g, ",
                sqlite3_column_double(statement, column));
        return nullptr;
    default:
        return nullptr;
    }
}

// The key of a memory device's row; NULL when there is no row, key or memory.
TextPtr GetKeyForDIMM(uint32_t oid)
{
    const StatementPtr statement =
        LookUp("select Key from TblMemoryInfo where OID = ?", oid);
    if (statement == nullptr)
    {
        return nullptr;
    }
    QDB_LOG(kLogTrace,
            "%s: GetKeyForDIMM: sqlite3_step returns = %d for oid= %d ",
            SQLITE_OK, StoredOid(oid));
    QDB_LOG(kLogTrace, "%s: GetKeyForDIMM: num_cols = %d",
            sqlite3_column_count(statement.get()));
    return sqlite3_data_count(statement.get()) == 0
               ? nullptr
               : TextOf(statement.get(), 0);
}

// The power state in the row of a power object; 0 when there is none.
uint8_t GetHostPowerSate(uint32_t oid)
{
    const StatementPtr statement = LookUp(
        "select powerstate from TblHostPowerOnStatusObj where OID = ?", oid);
    if (statement == nullptr)
    {
        return 0;
    }
    const auto state = static_cast<uint8_t>(FirstInteger(statement.get()));
    QDB_LOG(kLogTrace, "%s: GetHostPowerSate: fpowerstate = %d", state);
    return state;
}

// Stores the number of rows of power objects. Returns 0; -1 without a
// connection or a row to read; the status of a failed prepare. *pCount stays
// unless a row was read.
int CheckHostPowerSulpplyObjCountInDB(int *pCount)
{
    int status = SQLITE_OK;
    const StatementPtr statement =
        PrepareLookUp("SELECT count(*) FROM TblHostPowerOnStatusObj", &status);
    if (status != SQLITE_OK)
    {
        return status;
    }
    status = StepStatement(statement.get());
    if (status == SQLITE_ROW)
    {
        *pCount = sqlite3_column_int(statement.get(), 0);
        QDB_LOG(kLogTrace, "%s: row count for TblHostPowerOnStatusObj = %d\n",
                *pCount);
        return SQLITE_OK;
    }
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: No data found\n");
        return kFailed;
    }
    return SQLITE_OK;
}

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
