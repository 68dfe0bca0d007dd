#include "reconcile/count_check.h"

#include "core/fate.h"
#include "core/log.h"
#include "core/platform_ptr.h"
#include "core/state.h"
#include "core/status.h"
#include "db/clearing.h"
#include "db/connection.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "objects/handlers.h"
#include "objects/object_loop.h"
#include "objects/object_view.h"
#include "objects/parents.h"
#include "reconcile/fail_drain.h"
#include "reconcile/look_up.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace qdb
{
namespace
{

constexpr size_t kCountQuerySize = 512;
constexpr size_t kTextQuerySize = 256;
constexpr size_t kTextBufferSize = 256;

// Stores what a query for one integer yields. Returns 0; -1 without a
// connection or a row; the status of a failed prepare. *pCount stays unless a
// row was read.
int DB_Count_Sql_Helper(int *pCount, const char *query)
{
    if (QDVdbHandle == nullptr)
    {
        QDB_LOG(kLogTrace,
                "%s: DB_Count_Sql_Helper- Error: DB handle not available");
        return kFailed;
    }
    int status = SQLITE_OK;
    const StatementPtr statement = PrepareLookUp(query, &status);
    if (status != SQLITE_OK)
    {
        return status;
    }
    if (StepStatement(statement.get()) != SQLITE_ROW)
    {
        QDB_LOG(kLogTrace, "%s: DB_Count_Sql_Helper: No data found\n");
        return kFailed;
    }
    *pCount = sqlite3_column_int(statement.get(), 0);
    return SQLITE_OK;
}

// Stores the number of rows to compare with the Data Manager's objects: one too
// many if two rows share a key, so that such a table never agrees. tblName is
// what follows FROM. Returns as DB_Count_Sql_Helper.
int CheckDMPopCountInDB(int *pCount, const char *tblName, const char *keyColumn)
{
    char query[kCountQuerySize];
    int rows = 0;
    std::snprintf(query, sizeof(query), "SELECT count(*) FROM %s", tblName);
    int status = DB_Count_Sql_Helper(&rows, query);
    if (status != SQLITE_OK)
    {
        return status;
    }
    int distinct = 0;
    std::snprintf(query, sizeof(query), "SELECT count(distinct %s) FROM %s",
                  keyColumn, tblName);
    status = DB_Count_Sql_Helper(&distinct, query);
    if (status != SQLITE_OK)
    {
        return status;
    }
    QDB_LOG(kLogTrace,
            "%s: CheckDMPopCountInDB: db_row_count = %d, "
            "db_distinct_row_count = %d\n",
            rows, distinct);
    *pCount = rows == distinct ? distinct : rows + 1;
    QDB_LOG(kLogTrace, "%s: CheckDMPopCountInDB: rowCount = %d\n", *pCount);
    return SQLITE_OK;
}

// The low byte of popStatus in the row of a 0x1001 object; 255 when it can't be
// read, 0 without a row.
uint8_t GetPopulatorPopstatus(uint32_t oid)
{
    const StatementPtr statement = LookUp(
        "select popStatus from TblDMStatus_Child_Obj  where OID = ?", oid);
    return statement == nullptr
               ? UINT8_MAX
               : static_cast<uint8_t>(FirstInteger(statement.get()));
}

// Copies a text column of an object's row, cut to 255 bytes and a NUL. Returns
// 0, or -1 without a row or a text.
int GetTextfromTable(const char *table, const char *column, uint32_t oid,
                     char (&buffer)[kTextBufferSize])
{
    char query[kTextQuerySize];
    std::snprintf(query, sizeof(query), "SELECT %s FROM %s WHERE OID = %d;",
                  column, table, StoredOid(oid));
    int status = SQLITE_OK;
    const StatementPtr statement = PrepareOnce(query, &status);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace,
                "%s: GetTextfromTable: Failed to prepare statement: %s\n",
                SqliteErrorMessage().c_str());
        return kFailed;
    }
    if (StepStatement(statement.get()) != SQLITE_ROW)
    {
        return kFailed;
    }
    const auto *text =
        reinterpret_cast<const char *>(sqlite3_column_text(statement.get(), 0));
    if (text == nullptr)
    {
        return kFailed;
    }
    std::snprintf(buffer, sizeof(buffer), "%s", text);
    return SQLITE_OK;
}

constexpr char kName[] = "CheckDMObjCountandReCreateEntries";
constexpr size_t kPopStatusAt = 0x18;

// Whether an object's row disagrees with it in the one column that is looked
// at while the counts agree.
using RowCheck = bool (*)(const DataObjHeader *pDOH, uint32_t oid);

bool PopStatusDiffers(const DataObjHeader *pDOH, uint32_t oid)
{
    const uint32_t popStatus =
        ObjectView(pDOH).Read<uint32_t>(kPopStatusAt).value_or(0);
    const uint8_t dbPopStatus = GetPopulatorPopstatus(oid);
    QDB_LOG(kLogTrace, "%s: %s: pHCO->popStatus=%d, dbPopStatus=%d", kName,
            static_cast<int>(popStatus), dbPopStatus);
    return popStatus != dbPopStatus;
}

// A row without a key tells nothing.
bool BatteryKeyDiffers(const DataObjHeader *pDOH, uint32_t oid)
{
    char rowKey[kTextBufferSize];
    if (GetTextfromTable("Tblprobeobj", "Key", oid, rowKey) != SQLITE_OK)
    {
        return false;
    }
    const std::string_view key =
        ObjectView(pDOH).TextOfWord(kKeyWordAt).value_or("");
    if (std::strncmp(key.data(), rowKey,
                     std::min(key.size(), kTextBufferSize)) == 0)
    {
        return false;
    }
    QDB_LOG(kLogTrace,
            "%s: %s: Found Key Mismatch for Battery Object So recreating "
            "!!!!\n",
            kName);
    return true;
}

struct RecreateRow
{
    uint32_t objType;
    const char *TblName; // what follows FROM
    const char *keyColumn;
    RowCheck check; // NULL: nothing to look at while the counts agree
};

constexpr RecreateRow DM_Recreate_Notification_Map_Table[] = {
    {0x1001, "TblDMStatus_Child_Obj", "Key", PopStatusDiffers},
    // Of all the probes of this type, those of the battery.
    {0x1B,
     "TblProbeObj where "
     "ParentObjectKey='Tarnu.Embedded.1#SubSystem.1#Battery'",
     "Key", BatteryKeyDiffers},
    {0x220, "TblGPUInventoryObj", "Key", nullptr},
};

// One object of a walk. `recreate`: its table has just been cleared. Returns
// the walk's status after it.
int VisitObject(const RecreateRow &row, uint32_t oid, ObjectPtr object,
                bool recreate, int returnStatus)
{
    const ObjectPtr parent = FetchParent(object.get(), nullptr);
    const bool refresh =
        !recreate && row.check != nullptr && row.check(object.get(), oid);
    QDB_LOG(kLogTrace,
            "%s: %s: popStatusRefreshNeed=%d, isDMQdbCountMatched=0x%x\n",
            kName, refresh, recreate);
    if (!recreate && !refresh)
    {
        NoteFate(Fate::Unchanged);
        return returnStatus;
    }
    const ObjTypeRow &handlers = *FindRow(row.objType);
    const int status = RunOnObject(
        kName, returnStatus, oid, &object, WhenGone::FetchAgain,
        [&](const DataObjHeader *pDOH)
        {
            return recreate ? CreateObject(handlers, pDOH, parent.get())
                            : RefreshObject(handlers, pDOH, parent.get());
        });
    return IsSuccess(status) ? returnStatus : FailureOf(status);
}

// An object that is gone ends the walk; the others wait for the next pass.
int WalkObjects(const RecreateRow &row, const OidList &list, bool recreate)
{
    int status = SQLITE_OK;
    for (const uint32_t oid : list.Oids())
    {
        const BookEntry entry(Road::Reload);
        ObjectPtr object = FetchObject(oid);
        if (object == nullptr)
        {
            return ZO_STATUS_NO_SUCH_OBJECT;
        }
        status = VisitObject(row, oid, std::move(object), recreate, status);
    }
    return status;
}

int CompareRow(const RecreateRow &row, const OidList &list, int rowCount)
{
    const int objects = static_cast<int>(list.Oids().size());
    if (objects == rowCount && row.check == nullptr)
    {
        QDB_LOG(kLogTrace,
                "%s: %s:Object count matched with QDB and DM SKipping Loop to "
                "refresh/Recreate!! \n",
                kName);
        return SQLITE_OK;
    }
    // A Data Manager that has none (yet) leaves the rows in place.
    if (objects == 0)
    {
        return SQLITE_OK;
    }
    const bool recreate = objects != rowCount;
    if (recreate)
    {
        if (const int status = ClearTblDatabyObjType(row.objType))
        {
            return status;
        }
    }
    return WalkObjects(row, list, recreate);
}

int CheckRow(const RecreateRow &row)
{
    const OidList list = ListChildren(row.objType);
    if (list.IsNull())
    {
        return ZO_STATUS_NO_SUCH_OBJECT;
    }
    int rowCount = 0;
    if (CheckDMPopCountInDB(&rowCount, row.TblName, row.keyColumn) != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: %s:0x%x CheckDMPopCountInDB failed!! \n", kName,
                row.objType);
        return kFailed;
    }
    QDB_LOG(kLogTrace,
            "%s: %s:0x%x DM Count:%d QDB count:%d  Recreate entries!! \n",
            kName, row.objType, static_cast<int>(list.Oids().size()), rowCount);
    return CompareRow(row, list, rowCount);
}

} // namespace

int CheckDMObjCountandReCreateEntries()
{
    QDB_LOG(kLogTrace, "%s: Entering %s \n", kName);
    DrainFailQueue();
    int status = SQLITE_OK;
    for (const RecreateRow &row : DM_Recreate_Notification_Map_Table)
    {
        status = CheckRow(row);
    }
    QDB_LOG(kLogTrace, "%s: Exiting %s \n", kName);
    return status;
}

} // namespace qdb
