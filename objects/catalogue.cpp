#include "objects/catalogue.h"

#include "objects/array_tables.h"
#include "objects/handlers.h"
#include "objects/predicates.h"
#include "objects/schema/rows.h"
#include "queues/fail_queue.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace qdb
{
namespace
{

// The thunks that give each row functions of its own.
template <size_t Index>
int CreateObj(const DataObjHeader *pDOH, const DataObjHeader *pParentDOH)
{
    return CreateObject(ObjectTypeTable[Index], pDOH, pParentDOH);
}

template <size_t Index>
int RefreshObj(const DataObjHeader *pDOH, const DataObjHeader *pParentDOH)
{
    return RefreshObject(ObjectTypeTable[Index], pDOH, pParentDOH);
}

template <size_t Index>
int DeleteObj(const DataObjHeader *pDOH)
{
    return DeleteObject(ObjectTypeTable[Index], pDOH);
}

consteval MatchFunction PredicateOf(const RowData &row)
{
    switch (row.objType)
    {
    case 0x31B:
        return std::string_view(row.suffix) == "31B_RAID_PDSmartData_NVMe"
                   ? Is_NVMe
                   : Is_SAS_SATA;
    case 0x45:
        return std::string_view(row.suffix) == "45_RAID_EmptySlot"
                   ? Is_Raid_Empty_Slot_Obj
                   : Is_Empty_Slot_Obj;
    case 0x706:
    case 0x726:
    case 0x746:
    case 0x786:
        return GetDependencyListOffsetHiiEnum;
    default:
        return nullptr;
    }
}

template <size_t... Index>
consteval std::array<ObjTypeRow, kRowCount>
MakeTable(std::index_sequence<Index...> /*rows*/)
{
    return {ObjTypeRow{kRowData[Index].objType, CreateObj<Index>,
                       RefreshObj<Index>, DeleteObj<Index>,
                       PredicateOf(kRowData[Index]), kRowData[Index].table,
                       kRowData[Index].suffix}...};
}

// Types whose listeners need the old values, too.
constexpr uint32_t kWithPreviousValues[] = {
    0x304, 0x703, 0x704, 0x706, 0x723, 0x724,  0x726,  0x743,
    0x744, 0x746, 0x783, 0x784, 0x786, 0x4051, 0x4052, 0x4053,
};

// In the fail-type list, and yet its refreshes are not kept.
constexpr uint32_t kFru = 0x42;

ObjRowState gRowStates[kRowCount];

} // namespace

constexpr std::array<ObjTypeRow, kRowCount> ObjectTypeTable =
    MakeTable(std::make_index_sequence<kRowCount>());

ObjRowState &StateOf(const ObjTypeRow &row)
{
    return gRowStates[&row - ObjectTypeTable.data()];
}

const ObjTypeRow *FindRow(uint32_t objType)
{
    const auto row =
        std::ranges::find(ObjectTypeTable, objType, &ObjTypeRow::objType);
    return row == ObjectTypeTable.end() ? nullptr : &*row;
}

bool HasPreviousValues(const ObjTypeRow &row)
{
    return std::ranges::find(kWithPreviousValues, row.objType) !=
           std::end(kWithPreviousValues);
}

bool KeepsMissedRefreshes(const ObjTypeRow &row)
{
    return row.objType != kFru &&
           QdbFailObjTypeIndex(static_cast<int>(row.objType)) != -1;
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
