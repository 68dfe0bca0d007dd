// The insert into ActiveOIDMapping, with its own rule for repeats.
//
// An OID that is mapped already is one of two things: an object that the
// service knows, or one whose delete is still to come. The second ends by
// itself, so that types which come and go in bursts wait for it
// (DeletePatience), a millisecond at a time and a hundred times at most.
// Whoever waits here has the create's claim and, at first, the turn; neither
// may keep the delete from its work. So before each further attempt
// 1. the turn is given up,
// 2. the claim goes to the end of the line (object_order.h), and the object is
//    looked at again: it may be out of date by then;
// 3. the statement is free: its mutex is held for one attempt only.

#include "core/log.h"
#include "core/object_order.h"
#include "core/sleep.h"
#include "core/state.h"
#include "core/status.h"
#include "core/threads.h"
#include "db/connection.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "db/turn.h"

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

// One call's constants.
struct Insert
{
    uint32_t oid;
    uint32_t objType;
    DeletePatience patience;
    bool backlog; // gSkipConstraintCheck, read once per call
};

// Whether a mapped OID is waited for any longer.
bool WaitForConstraint(const Insert &insert, bool lastAttempt)
{
    // With a thousand events waiting each mapped OID would cost a tenth of a
    // second; most are known objects, announced once more by a Data Manager
    // that has just come up.
    if (insert.backlog && insert.patience != DeletePatience::KeepsOn)
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
    if (insert.patience != DeletePatience::None)
    {
        GiveUpTurn();
        SleepMicroseconds(kConstraintPauseMicroseconds);
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
        GiveUpTurn();
        SleepForBusy(kBacklogBusyPauseMicroseconds);
    }
}

// One attempt. The statement's mutex is held for no longer, so that an object
// that waits for its delete holds up no other create. False when a bind failed,
// with its code in *pStatus.
bool TryInsert(const Insert &insert, int *pStatus)
{
    const StatementLock lock(gActiveOIDStmtMutex);
    sqlite3_stmt *statement = gActiveOIDInsertStmt.statement;
    const StatementReset reset(statement);
    *pStatus = sqlite3_bind_int(statement, 1, StoredOid(insert.oid));
    if (*pStatus == SQLITE_OK)
    {
        *pStatus =
            sqlite3_bind_int(statement, 2, static_cast<int>(insert.objType));
    }
    if (*pStatus != SQLITE_OK)
    {
        QDB_LOG(kLogInvalid, "%s: [%x]Bind failed for %d %X. Error: %d",
                insert.objType, StoredOid(insert.oid), insert.oid, *pStatus);
        return false;
    }
    *pStatus = StepStatement(statement);
    return true;
}

// What an attempt's status means; whether there is to be another one.
bool JudgeInsert(const Insert &insert, int status, bool lastAttempt)
{
    if (status == SQLITE_DONE)
    {
        QDB_LOG(kLogTrace,
                "%s: [%x]Entry for ObjID:%x 0x%X inserted in "
                "ActiveOIDMapping Table",
                insert.objType, insert.oid, insert.oid);
        return false;
    }
    if (status == SQLITE_CONSTRAINT)
    {
        return WaitForConstraint(insert, lastAttempt);
    }
    if (IsBusy(status))
    {
        WaitWhileBusy(insert, lastAttempt);
        return true;
    }
    QDB_LOG(kLogTrace,
            "%s: [%x]Entry could not be inserted in ActiveOIDMapping "
            "Table for ObjId- %d 0x%X. ReturnStatus before update = "
            "%d\n",
            insert.objType, StoredOid(insert.oid), insert.oid, status);
    return false;
}

// Before another attempt: whoever holds the OID must get on. False when the
// object turns out to be out of date.
bool LetHolderGetOn()
{
    GiveUpTurn();
    ObjectClaim *claim = ObjectClaim::OfThread();
    return claim == nullptr || claim->LetOthersGoFirst();
}

// Up to a hundred attempts, or until the patience of a stop is over: whoever
// has the OID may hang. False when a bind failed.
bool StepInsert(const Insert &insert, int *pStatus)
{
    bool isLast = false;
    for (int attempt = 1; !isLast; ++attempt)
    {
        isLast = attempt == kAttempts || StopPatienceIsOver();
        if (attempt > 1 && !LetHolderGetOn())
        {
            *pStatus = ZO_STATUS_INVALID_VALUE;
            return true;
        }
        if (!TryInsert(insert, pStatus))
        {
            return false;
        }
        if (!JudgeInsert(insert, *pStatus, isLast))
        {
            break;
        }
    }
    return true;
}

// Fills the slot; logs what it found.
int PrepareInsert(uint32_t objType)
{
    const StatementLock lock(gActiveOIDStmtMutex);
    bool wasReady = false;
    const int status = gActiveOIDInsertStmt.Prepare(
        kInsertSql, sizeof(kInsertSql) - 1, &wasReady);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: [%x]sqlite3_prepare_v2 Error: %d", objType,
                status);
    }
    else if (wasReady)
    {
        QDB_LOG(kLogTrace, "%s: [%x]Using prepared statement", objType);
    }
    else
    {
        QDB_LOG(kLogTrace, "%s: [%x]Prepare Statement successful", objType);
    }
    return status;
}

int InsertWithSlot(uint32_t oid, uint32_t objType, DeletePatience patience)
{
    int status = PrepareInsert(objType);
    if (status != SQLITE_OK)
    {
        return status;
    }
    const Insert insert = {oid, objType, patience, gSkipConstraintCheck != 0};
    if (!StepInsert(insert, &status))
    {
        return status;
    }
    if (status == SQLITE_DONE)
    {
        return SQLITE_OK;
    }
    QDB_LOG(kLogError,
            "%s: [%x] Entry for %d 0x%X could not inserted in "
            "ActiveOIDMapping Table. Error: %d",
            objType, StoredOid(oid), oid, status);
    return status;
}

} // namespace

int insertinActiveOIDMapping(uint32_t oid, uint32_t objType,
                             DeletePatience patience)
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
        status = InsertWithSlot(oid, objType, patience);
    }
    QDB_LOG(kLogTrace,
            "%s: [%x]Exiting insertinActiveOIDMapping for OID- 0x%x %d\n",
            objType, oid, StoredOid(oid));
    return status;
}

} // namespace qdb
