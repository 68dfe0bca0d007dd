#include "reconcile/count_queries.h"

#include "core/log.h"
#include "core/state.h"
#include "core/status.h"
#include "db/connection.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "reconcile/look_up.h"

#include <cstdio>

namespace qdb
{
namespace
{

constexpr size_t kCountQuerySize = 512;
constexpr size_t kTextQuerySize = 256;

} // namespace

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

uint8_t GetPopulatorPopstatus(uint32_t oid)
{
    const StatementPtr statement = LookUp(
        "select popStatus from TblDMStatus_Child_Obj  where OID = ?", oid);
    return statement == nullptr
               ? UINT8_MAX
               : static_cast<uint8_t>(FirstInteger(statement.get()));
}

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

} // namespace qdb
