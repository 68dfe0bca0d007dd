#include "objects/catalogue.h"

#include "core/log.h"
#include "objects/array_tables.h"
#include "objects/row_log.h"

#include <algorithm>

namespace qdb
{
namespace
{

constexpr size_t kRetriedCount = static_cast<size_t>(
    std::ranges::count_if(ObjectTypeTable,
                          [](const ObjTypeRow &row)
                          {
                              return row.Has(Trait::RetriesCreate);
                          }));

consteval auto SortRetried()
{
    std::array<const ObjTypeRow *, kRetriedCount> sorted = {};
    auto *next = sorted.begin();
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        if (row.Has(Trait::RetriesCreate))
        {
            *next++ = &row;
        }
    }
    std::ranges::sort(sorted, {},
                      [](const ObjTypeRow *row)
                      {
                          return row->objType;
                      });
    return sorted;
}

constexpr auto kRetried = SortRetried();

std::array<ObjRowState, ObjectTypeTable.size()> gRowStates;

} // namespace

ObjRowState &StateOf(const ObjTypeRow &row)
{
    return gRowStates[static_cast<size_t>(&row - ObjectTypeTable.data())];
}

int PrepareForRow(const ObjTypeRow &row, uint32_t oid, const char *stem,
                  StatementSlot &slot, SqlText (*makeSql)(const ObjTypeRow &))
{
    if (slot.statement != nullptr)
    {
        QDB_LOG(kLogTrace, "%s: [%s]Using prepared statement", row.suffix);
        return SQLITE_OK;
    }
    const SqlText sql = makeSql(row);
    bool wasReady = false;
    const int status =
        slot.Prepare(sql.c_str(), static_cast<int>(sql.size()), &wasReady);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogError, "%s: [%s]sqlite3_prepare_v2 Error: %d oID:%d",
                row.suffix, status, StoredOid(oid));
        LogRowError(kLogError, stem, row);
    }
    return status;
}

const ObjTypeRow *FindRow(uint32_t objType)
{
    const auto row =
        std::ranges::find(ObjectTypeTable, objType, &ObjTypeRow::objType);
    return row == ObjectTypeTable.end() ? nullptr : &*row;
}

const ObjTypeRow &RowOf(Reload reload)
{
    return *std::ranges::find(ObjectTypeTable, reload, &ObjTypeRow::reload);
}

Reload ReloadOf(uint32_t objType)
{
    const ObjTypeRow *row = FindRow(objType);
    return row == nullptr ? Reload::None : row->reload;
}

DeletePatience PatienceOf(const ObjTypeRow &row)
{
    return row.Has(Trait::KeepsOnForDelete)  ? DeletePatience::KeepsOn
           : row.Has(Trait::PausesForDelete) ? DeletePatience::Pauses
                                             : DeletePatience::None;
}

bool IsConfigType(uint32_t objType)
{
    const ObjTypeRow *row = FindRow(objType);
    return row != nullptr && row->Has(Trait::Attribute);
}

int QdbFailObjTypeIndex(uint32_t objType)
{
    if (objType == 0)
    {
        return 0;
    }
    const auto found = std::ranges::find_if(kRetried,
                                            [&](const ObjTypeRow *row)
                                            {
                                                return row->objType == objType;
                                            });
    return found == kRetried.end()
               ? -1
               : 1 + static_cast<int>(found - kRetried.begin());
}

const ObjTypeRow *RowOfFailIndex(int index)
{
    return index > 0 && static_cast<size_t>(index) <= kRetried.size()
               ? kRetried[static_cast<size_t>(index) - 1]
               : nullptr;
}

void FinalizeHandlerStatements()
{
    for (ObjRowState &state : gRowStates)
    {
        state.InsertStmt.Finalize();
        state.UpdateStmt.Finalize();
        state.SelectStmt.Finalize();
    }
    FinalizeArrayStatements();
}

} // namespace qdb
