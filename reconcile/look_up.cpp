#include "reconcile/look_up.h"

#include "core/log.h"
#include "core/status.h"
#include "db/connection.h"
#include "db/execute.h"
#include "db/mapping.h"

namespace qdb
{

StatementPtr PrepareLookUp(const char *sql, int *pStatus)
{
    if (!HasDatabase())
    {
        *pStatus = kFailed;
        return nullptr;
    }
    StatementPtr statement = PrepareOnce(sql, pStatus);
    if (*pStatus != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: sqlite3_prepare_v2 Error: %d", *pStatus);
    }
    return statement;
}

StatementPtr LookUp(const char *sql, uint32_t oid)
{
    int status = SQLITE_OK;
    StatementPtr statement = PrepareLookUp(sql, &status);
    if (status == SQLITE_OK)
    {
        status = sqlite3_bind_int(statement.get(), 1, StoredOid(oid));
    }
    if (status == SQLITE_OK)
    {
        status = execute_statement(statement.get());
    }
    return status == SQLITE_OK ? std::move(statement) : nullptr;
}

int FirstInteger(sqlite3_stmt *statement)
{
    return sqlite3_data_count(statement) == 0
               ? 0
               : sqlite3_column_int(statement, 0);
}

} // namespace qdb
