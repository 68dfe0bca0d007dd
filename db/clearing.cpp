#include "db/clearing.h"

#include "core/log.h"
#include "core/state.h"
#include "core/status.h"
#include "db/connection.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "db/turn.h"

#include <cstdio>

namespace qdb
{
namespace
{

constexpr int kQuerySize = 512;

constexpr const char *kConfigTables[] = {
    "TblIntAttribute",
    "TblStrAttribute",
    "TblEnumAttribute",
    "TblPasswdAttribute",
};

pthread_mutex_t gDeleteObjectByOIDMutex = PTHREAD_MUTEX_INITIALIZER;
StatementSlot gDeleteObjectByOIDStmt;

// Under gObjTypeBasedNCMutex, which its callers hold.
StatementSlot gDeleteNCObjsBasedOnOIDStmt;

// Prepares a statement in a status loop; NULL when it stays unprepared.
StatementPtr PrepareWithRetry(const char *sql)
{
    StatementPtr statement;
    RunStatusLoop({}, 0,
                  [&]
                  {
                      int status = SQLITE_OK;
                      statement = PrepareOnce(sql, &status);
                      return status;
                  });
    return statement;
}

// Runs a delete of many rows; `logFailure` gets the status of a failed run.
template <typename LogFailure>
int RunDelete(const char *sql, LogFailure logFailure)
{
    if (!HasDatabase())
    {
        return kFailed;
    }
    const StatementPtr statement = PrepareWithRetry(sql);
    if (statement == nullptr)
    {
        return kFailed;
    }
    const int status = execute_statement(statement.get());
    if (status != SQLITE_OK)
    {
        logFailure(status);
        return kFailed;
    }
    return SQLITE_OK;
}

void LogNotDeleted(uint32_t oid, int status)
{
    QDB_LOG(kLogError,
            "%s: DeleteObjectByOID: Entry for %d %X could not deleted. Error: "
            "%d",
            StoredOid(oid), oid, status);
}

// Runs the bound delete, and once more if the first run fails.
int RunTwice(sqlite3_stmt *statement, uint32_t oid)
{
    int status = execute_statement(statement);
    if (status != SQLITE_OK)
    {
        LogNotDeleted(oid, status);
        QDB_LOG(kLogError, "%s: First Attempt  got failed to for 100 try  "
                           "delete....Let  Try...\n");
        status = execute_statement(statement);
        if (status != SQLITE_OK)
        {
            LogNotDeleted(oid, status);
            QDB_LOG(kLogError, "%s: Retry 2nd attempt  got failed to delete "
                               "for 100...\n");
        }
    }
    return status;
}

// Prepares the delete by OID into a slot whose mutex the caller holds; logs
// what it found.
int PrepareDelete(StatementSlot &slot, const char *function)
{
    bool wasReady = false;
    const int status = slot.Prepare(
        "DELETE FROM ActiveOIDMapping WHERE Oid = ?", -1, &wasReady);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: %s: sqlite3_prepare_v2 Error: %d", function,
                status);
    }
    else if (wasReady)
    {
        QDB_LOG(kLogTrace, "%s: %s: Using prepared statement", function);
    }
    return status;
}

int DeleteWithSlot(uint32_t oid)
{
    int status = PrepareDelete(gDeleteObjectByOIDStmt, "DeleteObjectByOID");
    if (status != SQLITE_OK)
    {
        return status;
    }
    sqlite3_stmt *statement = gDeleteObjectByOIDStmt.statement;
    const StatementReset reset(statement);
    status = sqlite3_bind_int(statement, 1, StoredOid(oid));
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogInvalid,
                "%s: DeleteObjectByOID: Bind failed for %d %X. Error: %d",
                StoredOid(oid), oid, status);
        return status;
    }
    return RunTwice(statement, oid);
}

// A failed run is logged, and counts as done.
int DeleteOnce(uint32_t oid)
{
    int status =
        PrepareDelete(gDeleteNCObjsBasedOnOIDStmt, "DeleteNCObjsBasedOnOID");
    if (status != SQLITE_OK)
    {
        return status;
    }
    sqlite3_stmt *statement = gDeleteNCObjsBasedOnOIDStmt.statement;
    const StatementReset reset(statement);
    status = sqlite3_bind_int(statement, 1, StoredOid(oid));
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogInvalid,
                "%s: DeleteNCObjsBasedOnOID: Bind failed for %d. Error: %d",
                StoredOid(oid), status);
        return status;
    }
    const int run = execute_statement(statement);
    if (run != SQLITE_OK)
    {
        QDB_LOG(kLogError,
                "%s: DeleteNCObjsBasedOnOID: Entry for %d could not deleted. "
                "Error: %d",
                StoredOid(oid), run);
    }
    return SQLITE_OK;
}

} // namespace

int ClearCfgMgrData()
{
    if (!HasDatabase())
    {
        return kFailed;
    }
    QDB_LOG(kLogWarning, "%s: Clearing table Cfg from ActiveOIDMapping.");
    int status = SQLITE_OK;
    for (const char *table : kConfigTables)
    {
        char query[kQuerySize];
        std::snprintf(query, sizeof(query),
                      "DELETE FROM ActiveOIDMapping WHERE ROWID IN (SELECT "
                      "a.ROWID FROM ActiveOIDMapping a INNER JOIN %s b ON "
                      "a.OID = b.OID);",
                      table);
        QDB_LOG(kLogTrace, "%s: Query: %s.", query);
        const StatementPtr statement = PrepareWithRetry(query);
        if (statement == nullptr)
        {
            return kFailed;
        }
        // After a failure the later tables are prepared, but left alone.
        if (status == SQLITE_OK &&
            execute_statement(statement.get()) != SQLITE_OK)
        {
            status = kFailed;
            QDB_LOG(kLogError, "%s: Could not removed from Cfg data. Error: %d",
                    status);
        }
    }
    QDB_LOG(kLogWarning, "%s: Clearing table Cfg from ActiveOIDMapping: %d.",
            status);
    return status;
}

int ClearTblDatabyObjType(uint32_t objType)
{
    char query[kQuerySize];
    std::snprintf(query, sizeof(query),
                  "delete from ActiveOIDMapping where ObjType=%d",
                  static_cast<int>(objType));
    return RunDelete(query,
                     [&](int status)
                     {
                         QDB_LOG(kLogTrace,
                                 "%s: Could not removed from %x Table. Error: "
                                 "%d",
                                 objType, status);
                     });
}

int ClearTableData(const char *tableName)
{
    char query[kQuerySize];
    std::snprintf(query, sizeof(query), "delete from %s", tableName);
    return RunDelete(query,
                     [&](int status)
                     {
                         QDB_LOG(kLogTrace,
                                 "%s: Could not removed from %s Table. Error: "
                                 "%d",
                                 tableName, status);
                     });
}

int DeleteObjectByOID(uint32_t oid)
{
    if (!HasDatabase())
    {
        return kFailed;
    }
    int status = SQLITE_OK;
    {
        const StatementLock lock(gDeleteObjectByOIDMutex);
        status = DeleteWithSlot(oid);
    }
    QDB_LOG(kLogTrace,
            "%s: DeleteObjectByOID: "
            "%d####################################################",
            status);
    return status;
}

int DeleteNCObjsBasedOnOID(uint32_t oid)
{
    if (!HasDatabase())
    {
        return kFailed;
    }
    const int status = DeleteOnce(oid);
    QDB_LOG(kLogTrace,
            "%s: DeleteNCObjsBasedOnOID: "
            "%d####################################################",
            status);
    return status;
}

void FinalizeClearingStatements()
{
    gDeleteNCObjsBasedOnOIDStmt.Finalize();
    gDeleteObjectByOIDStmt.Finalize();
}

} // namespace qdb
