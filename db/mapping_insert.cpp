// The insert into ActiveOIDMapping, with its own rule for repeats.

#include "core/lock.h"
#include "core/log.h"
#include "core/sleep.h"
#include "core/state.h"
#include "core/status.h"
#include "core/threads.h"
#include "db/connection.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "db/turn.h"
#include "events/queues/fail_queue.h"
#include "events/queues/sorted_types.h"

#include <algorithm>

namespace qdb
{

StatementSlot gActiveOIDInsertStmt;

namespace
{

constexpr char kInsertSql[] =
    "insert into ActiveOIDMapping ( OID, ObjType ) values (?,?)";

constexpr unsigned kConstraintPauseMicroseconds = 1000;
constexpr unsigned kBacklogBusyPauseMicroseconds = 50000;

pthread_mutex_t gActiveOIDStmtMutex = PTHREAD_MUTEX_INITIALIZER;

// Types whose creates often meet the delete of their predecessor.
int gConstraintSkippable[] = {
    0x16,  0x17,  0x1B,  0x42,  0x49,  0x802, 0x803, 0x804, 0x805,
    0x806, 0x807, 0x808, 0x809, 0x80A, 0x80B, 0x80C, 0xD04,
};

constexpr uint32_t kAlsoWaitedFor[] = {0x5E, 0xD2, 0xD3, 0xE1, 0x42, 0x801};

// One call's constants.
struct Insert
{
    sqlite3_stmt *statement;
    uint32_t oid;
    uint32_t objType;
    bool backlog; // gSkipConstraintCheck, read once per call
    bool tolerant;
};

void Pause(unsigned microseconds)
{
    GiveUpTurn();
    SleepMicroseconds(microseconds);
}

// Whether a mapped OID is waited for any longer.
bool WaitForConstraint(const Insert &insert, bool lastAttempt)
{
    if (insert.backlog && !insert.tolerant)
    {
        QDB_LOG(kLogError,
                "%s: [%x]skip constraint loop case ObjId:%x 0x%X could not "
                "inserted in ActiveOIDMapping Table. Error: %d",
                insert.objType, insert.oid, insert.oid, SQLITE_CONSTRAINT);
        return false;
    }
    if (lastAttempt)
    {
        QDB_LOG(kLogTrace,
                "%s: [%x]ActiveOIDMapping Table constraint error for "
                "objID:%d 0x%x \n",
                insert.objType, StoredOid(insert.oid), insert.oid);
    }
    if (insert.tolerant || std::ranges::find(kAlsoWaitedFor, insert.objType) !=
                               std::end(kAlsoWaitedFor))
    {
        Pause(kConstraintPauseMicroseconds);
    }
    return true;
}

void WaitWhileBusy(const Insert &insert, bool lastAttempt)
{
    if (lastAttempt)
    {
        QDB_LOG(kLogError,
                "%s: [%x]ActiveOIDMapping Table SQLITE_BUSY or SQLITE_LOCKED "
                "error.objID:%d objID:0x%x \n",
                insert.objType, StoredOid(insert.oid), insert.oid);
    }
    if (insert.backlog)
    {
        Pause(kBacklogBusyPauseMicroseconds);
    }
}

int StepInsert(const Insert &insert)
{
    int status = SQLITE_OK;
    bool lastAttempt = false;
    for (int attempt = 1; !lastAttempt; ++attempt)
    {
        lastAttempt = attempt == kAttempts || StopPatienceIsOver();
        if (attempt > 1)
        {
            // Whoever holds the OID must get on.
            GiveUpTurn();
        }
        status = StepStatement(insert.statement);
        if (status == SQLITE_DONE)
        {
            QDB_LOG(kLogTrace,
                    "%s: [%x]Entry for ObjID:%x 0x%X inserted in "
                    "ActiveOIDMapping Table",
                    insert.objType, insert.oid, insert.oid);
            return SQLITE_OK;
        }
        if (status == SQLITE_CONSTRAINT)
        {
            if (!WaitForConstraint(insert, lastAttempt))
            {
                return status;
            }
        }
        else if (IsBusy(status))
        {
            WaitWhileBusy(insert, lastAttempt);
        }
        else
        {
            QDB_LOG(kLogTrace,
                    "%s: [%x]Entry could not be inserted in ActiveOIDMapping "
                    "Table for ObjId- %d 0x%X. ReturnStatus before update = "
                    "%d\n",
                    insert.objType, StoredOid(insert.oid), insert.oid, status);
            return status;
        }
    }
    return status;
}

int BindAndStep(const Insert &insert)
{
    const StatementReset reset(insert.statement);
    int status = sqlite3_bind_int(insert.statement, 1, StoredOid(insert.oid));
    if (status == SQLITE_OK)
    {
        status = sqlite3_bind_int(insert.statement, 2,
                                  static_cast<int>(insert.objType));
    }
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogInvalid, "%s: [%x]Bind failed for %d %X. Error: %d",
                insert.objType, StoredOid(insert.oid), insert.oid, status);
        return status;
    }
    status = StepInsert(insert);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogError,
                "%s: [%x] Entry for %d 0x%X could not inserted in "
                "ActiveOIDMapping Table. Error: %d",
                insert.objType, StoredOid(insert.oid), insert.oid, status);
    }
    return status;
}

int InsertWithSlot(uint32_t oid, uint32_t objType)
{
    const MutexLock lock(gActiveOIDStmtMutex);
    bool wasReady = false;
    const int status = gActiveOIDInsertStmt.Prepare(
        kInsertSql, sizeof(kInsertSql) - 1, &wasReady);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: [%x]sqlite3_prepare_v2 Error: %d", objType,
                status);
        return status;
    }
    if (wasReady)
    {
        QDB_LOG(kLogTrace, "%s: [%x]Using prepared statement", objType);
    }
    else
    {
        QDB_LOG(kLogTrace, "%s: [%x]Prepare Statement successful", objType);
    }
    return BindAndStep({gActiveOIDInsertStmt.statement, oid, objType,
                        gSkipConstraintCheck != 0,
                        QdbObjTypeIsConstraintSkippable(objType)});
}

} // namespace

int insertinActiveOIDMapping(uint32_t oid, uint32_t objType)
{
    QDB_LOG(kLogTrace,
            "%s: [%x]Entering insertinActiveOIDMapping for OID- 0x%x %d\n",
            objType, oid, StoredOid(oid));
    int status = kFailed;
    if (QDVdbHandle == nullptr)
    {
        QDB_LOG(kLogInvalid, "%s: [%x]Error: DB handle not available", objType);
    }
    else
    {
        status = InsertWithSlot(oid, objType);
    }
    QDB_LOG(kLogTrace,
            "%s: [%x]Exiting insertinActiveOIDMapping for OID- 0x%x %d\n",
            objType, oid, StoredOid(oid));
    return status;
}

bool QdbObjTypeIsConstraintSkippable(uint32_t objType)
{
    return FindType(gConstraintSkippable, static_cast<int>(objType)) >= 0;
}

void QdbSortObjTypeLists()
{
    SortTypes(gConstraintSkippable);
    SortFailTypes();
}

} // namespace qdb
