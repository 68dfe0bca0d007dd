#include "config/presence_check.h"

#include "core/log.h"
#include "core/status.h"
#include "db/connection.h"
#include "db/execute.h"
#include "db/statement.h"
#include "db/turn.h"

namespace qdb
{
namespace
{

struct PresenceCheck
{
    const char *function;
    const char *tableName;
    const char *sql;
    pthread_mutex_t mutex;
    StatementSlot slot; // under the mutex
};

PresenceCheck gIntCheck = {
    "CheckCfgNCIntObjPresenceInDB",
    "TblIntAttribute",
    "SELECT EXISTS(SELECT 1 FROM TblIntAttribute WHERE Key=?)",
    PTHREAD_MUTEX_INITIALIZER,
    {}};
PresenceCheck gStrCheck = {
    "CheckCfgNCStrObjPresenceInDB",
    "TblStrAttribute",
    "SELECT EXISTS(SELECT 1 FROM TblStrAttribute WHERE Key=?)",
    PTHREAD_MUTEX_INITIALIZER,
    {}};

int StepCheck(sqlite3_stmt *statement, int *pCount)
{
    const int status = StepStatement(statement);
    if (status == SQLITE_ROW)
    {
        *pCount = sqlite3_column_int(statement, 0);
        QDB_LOG(kLogTrace, "%s: returned SQLITE_ROW count = %d\n", *pCount);
        return SQLITE_OK;
    }
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: No data found\n");
        return kFailed;
    }
    return SQLITE_OK;
}

int RunCheck(PresenceCheck &check, const char *key, int *pCount)
{
    LogEntry(check.function);
    if (!HasDatabase())
    {
        return kFailed;
    }
    const StatementLock lock(check.mutex);
    bool wasReady = false;
    int status = check.slot.Prepare(check.sql, -1, &wasReady);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: sqlite3_prepare_v2 Error: %d", status);
        return status;
    }
    if (wasReady)
    {
        QDB_LOG(kLogTrace, "%s: Using prepared statement");
    }
    sqlite3_stmt *statement = check.slot.statement;
    const StatementReset reset(statement);
    status = sqlite3_bind_text(statement, 1, key, -1, SQLITE_TRANSIENT);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogInvalid, "%s: Bind failed for %s %s. Error: %d",
                check.tableName, key, status);
        return kFailed;
    }
    return StepCheck(statement, pCount);
}

} // namespace

int CheckCfgNCIntObjPresenceInDB(const char *key, int *pCount)
{
    return RunCheck(gIntCheck, key, pCount);
}

int CheckCfgNCStrObjPresenceInDB(const char *key, int *pCount)
{
    return RunCheck(gStrCheck, key, pCount);
}

void FinalizePresenceChecks()
{
    gIntCheck.slot.Finalize();
    gStrCheck.slot.Finalize();
}

} // namespace qdb
