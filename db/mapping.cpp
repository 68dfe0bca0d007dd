#include "db/mapping.h"

#include "core/log.h"
#include "core/state.h"
#include "core/status.h"
#include "db/connection.h"
#include "db/execute.h"
#include "db/turn.h"

namespace qdb
{

StatementSlot gParentChildInsertStmt;
StatementSlot gEtagUpdateStmt;
extern StatementSlot gActiveOIDInsertStmt;

namespace
{

constexpr char kParentChildSql[] =
    "INSERT OR REPLACE INTO ParentChildMapping ('OID', 'POID') VALUES (?, ?)";
constexpr char kEtagSql[] = "UPDATE TblEtag SET MultiRecordEtag = "
                            "strftime('%s') where TableName = ?;";

StatementPool gObjTypeStmts; // at every event, on any thread

pthread_mutex_t gParentChildStmtMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t gEtagStmtMutex = PTHREAD_MUTEX_INITIALIZER;

// Fills a slot whose mutex the caller holds; logs what it found.
int PrepareSlot(StatementSlot &slot, const char *sql)
{
    bool wasReady = false;
    const int status = slot.Prepare(sql, -1, &wasReady);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: sqlite3_prepare_v2 Error: %d", status);
    }
    else if (wasReady)
    {
        QDB_LOG(kLogTrace, "%s: Using prepared statement");
    }
    else
    {
        QDB_LOG(kLogTrace, "%s: Prepare Statement successful");
    }
    return status;
}

// The value of a column as an object type; only an integer is one.
uint32_t ColumnAsType(sqlite3_stmt *statement, int column)
{
    switch (sqlite3_column_type(statement, column))
    {
    case SQLITE_INTEGER:
    {
        const int value = sqlite3_column_int(statement, column);
        QDB_LOG(kLogTrace, "%s: Column: %d, ", value);
        return static_cast<uint32_t>(value);
    }
    case SQLITE_FLOAT:
        QDB_LOG(kLogTrace, "%s: Column: %g, ",
                sqlite3_column_double(statement, column));
        return 0;
    case SQLITE_TEXT:
        QDB_LOG(kLogTrace, "%s: Column: %s, ",
                reinterpret_cast<const char *>(
                    sqlite3_column_text(statement, column)));
        return 0;
    default:
        return 0;
    }
}

// Runs the look-up of a type; 0 without a row or on failure.
uint32_t ReadObjType(sqlite3_stmt *statement, uint32_t oid)
{
    sqlite3_bind_int(statement, 1, StoredOid(oid));
    const int status = execute_statement(statement);
    QDB_LOG(kLogTrace, "%s: GetObjType: sqlite3_step returns = %d for oid= %d ",
            status, StoredOid(oid));
    if (status != SQLITE_OK)
    {
        return 0;
    }
    const int columns = sqlite3_data_count(statement);
    QDB_LOG(kLogTrace, "%s: GetObjType: num_cols = %d",
            sqlite3_column_count(statement));
    uint32_t objType = 0;
    for (int column = 0; column < columns; ++column)
    {
        objType = ColumnAsType(statement, column);
    }
    return objType;
}

} // namespace

int InsertInTblEtag(const char *tableName)
{
    if (!HasDatabase())
    {
        return kFailed;
    }
    const StatementLock lock(gEtagStmtMutex);
    int status = PrepareSlot(gEtagUpdateStmt, kEtagSql);
    if (status != SQLITE_OK)
    {
        return status;
    }
    sqlite3_stmt *statement = gEtagUpdateStmt.statement;
    const StatementReset reset(statement);
    status = sqlite3_bind_text(statement, 1, tableName, -1, SQLITE_TRANSIENT);
    if (status == SQLITE_OK)
    {
        status = execute_statement(statement);
    }
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogInvalid,
                "%s: Entry for %s could not inserted in TblEtag Table. Error: "
                "%d",
                tableName, status);
    }
    return status;
}

int InsertInParentChildMappingTable(uint32_t oid, uint32_t parentOid)
{
    if (!HasDatabase())
    {
        return kFailed;
    }
    const StatementLock lock(gParentChildStmtMutex);
    int status = PrepareSlot(gParentChildInsertStmt, kParentChildSql);
    if (status != SQLITE_OK)
    {
        return status;
    }
    sqlite3_stmt *statement = gParentChildInsertStmt.statement;
    const StatementReset reset(statement);
    status = sqlite3_bind_int64(statement, 1, StoredOid(oid));
    if (status == SQLITE_OK)
    {
        status = sqlite3_bind_int64(statement, 2, StoredOid(parentOid));
    }
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogInvalid, "%s: Bind failed for %d %X. Error: %d",
                StoredOid(oid), oid, status);
        return status;
    }
    status = execute_statement(statement);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogInvalid,
                "%s: Entry for %d %X could not inserted in "
                "ParentChildMapping Table. Error: %d",
                StoredOid(oid), oid, status);
    }
    return status;
}

int64_t CountObjects()
{
    int status = SQLITE_OK;
    const StatementPtr statement =
        PrepareOnce("SELECT count(*) FROM ActiveOIDMapping", &status);
    return status == SQLITE_OK && StepStatement(statement.get()) == SQLITE_ROW
               ? sqlite3_column_int64(statement.get(), 0)
               : 0;
}

uint32_t GetObjType(uint32_t oid)
{
    if (!HasDatabase())
    {
        return 0;
    }
    const LentStatement statement(
        gObjTypeStmts, "select ObjType from ActiveOIDMapping where OID = ?");
    if (statement.Status() != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: sqlite3_prepare_v2 Error: %d",
                statement.Status());
        return 0;
    }
    return ReadObjType(statement.Get(), oid);
}

void FinalizeMappingStatements()
{
    gObjTypeStmts.Finalize();
    gParentChildInsertStmt.Finalize();
    gEtagUpdateStmt.Finalize();
    gActiveOIDInsertStmt.Finalize();
}

} // namespace qdb
