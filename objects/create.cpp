// The create handler. Its invariants, and their numbers, stand in handlers.h.
//
// 1. The parent's key is fetched, without a lock.
// 2. A delete of the same OID in the same row is waited for.
// 3. The object is claimed; one that is out of date is refused there.
// 4. In one turn the object is bound, mapped and written, its arrays with it;
//    the row is read back, and the table's tag stamped.
// 5. Behind the turn, with the claim still held, the parents are asked for and
//    linked, and the row is announced.

#include "core/fate.h"
#include "core/guard.h"
#include "core/lock.h"
#include "core/object_order.h"
#include "core/state.h"
#include "core/status.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "db/turn.h"
#include "objects/array_tables.h"
#include "objects/binder.h"
#include "objects/change_json.h"
#include "objects/handlers.h"
#include "objects/parents.h"
#include "objects/row_log.h"
#include "objects/row_reader.h"
#include "objects/sql_text.h"
#include "publish/change_signal.h"
#include "queues/fail_queue.h"

namespace qdb
{
namespace
{

constexpr char kStem[] = "CreateObj_";

struct Create
{
    const ObjTypeRow &row;
    ObjRowState &state;
    const DataObjHeader *pDOH;
    const KeyOfParent key;

    uint32_t Oid() const
    {
        return pDOH->objID;
    }
    int LogOid() const
    {
        return StoredOid(pDOH->objID);
    }
};

// The statuses that callers need to see; everything else has been logged.
int ResultOf(int ret)
{
    return ret == SQLITE_OK || ret == ZO_STATUS_INVALID_VALUE ? ret
                                                              : FailureOf(ret);
}

// Invariant 4. Before the claim is taken, since the delete needs it to end;
// with CreateObjMutex in hand, since a delete doesn't take that.
void WaitForDelete(const Create &create)
{
    const MutexLock lock(create.state.DeleteWaitMutex);
    // A loop: one wake-up tells all waiters, and another delete of the OID may
    // have begun before this thread runs.
    while (create.state.DeletingOID == create.Oid())
    {
        QDB_LOG(kLogTrace, "%s: [%s]Inside %s%s sleeping till delete complete ",
                create.row.suffix, kStem, create.row.suffix);
        pthread_cond_wait(&create.state.DeleteWaitCond,
                          &create.state.DeleteWaitMutex);
    }
}

// Fills the slot whose mutex is CreateObjMutex.
int PrepareInsert(const Create &create)
{
    return PrepareForRow(create.row, create.Oid(), kStem,
                         create.state.InsertStmt, InsertSql);
}

// Only a busy database is worth another try later: all other failures would
// come again, and a mapped OID is the delete's business.
void KeepForLater(const Create &create)
{
    const int index = QdbFailObjTypeIndex(create.pDOH->objType);
    if (index != -1)
    {
        QDB_LOG(kLogTrace,
                "%s: Create_[%s]:Sqlite busy or lock error so adding to Fail "
                "Queue objtype:0x%x objID:0x%x objtype index %d",
                create.row.suffix, create.pDOH->objType, create.Oid(), index);
        QdbFailenQueue(gFailQueue, create.Oid(), FailedOperation::Create,
                       index);
    }
}

int MapOnce(const Create &create)
{
    return insertinActiveOIDMapping(create.Oid(), create.pDOH->objType,
                                    PatienceOf(create.row));
}

// The mapping insert, once more after it met a busy database.
int MapAgain(const Create &create, int status)
{
    QDB_LOG(kLogError,
            "%s: [%s]LINE:%d insertinActiveOIDMapping() failed 1st attemp "
            "failed:%d",
            create.row.suffix, __LINE__, status);
    status = MapOnce(create);
    if (!IsBusy(status))
    {
        QDB_LOG(kLogError,
                "%s: [%s]insertinActiveOIDMapping() failed 2nd attemp failed "
                "status:%d OID:%d",
                create.row.suffix, status, create.LogOid());
        return status;
    }
    KeepForLater(create);
    QDB_LOG(kLogError,
            "%s: [%s]insertinActiveOIDMapping() failed 2nd attemp failed:%d",
            create.row.suffix, status);
    QDB_LOG(kLogError, "%s: [%s]DB still LOCK or BUSY status:%d OID:%d",
            create.row.suffix, status, create.LogOid());
    return status;
}

// From here on the OID counts as live, also when its row can't be written:
// nothing is rolled back (invariant 1). An OID that was mapped before keeps its
// row as it is.
int MapObject(const Create &create)
{
    const int status = MapOnce(create);
    QDB_LOG(kLogTrace, "%s: [%s] %s%s status:%d", create.row.suffix, kStem,
            create.row.suffix, status);
    if (status == SQLITE_OK)
    {
        return status;
    }
    QDB_LOG(kLogTrace, "%s: [%s]Inside %s%s status:%d ", create.row.suffix,
            kStem, create.row.suffix, status);
    if (IsBusy(status))
    {
        return MapAgain(create, status);
    }
    if (status == SQLITE_CONSTRAINT)
    {
        QDB_LOG(kLogTrace,
                "%s: [%s]insertinActiveOIDMapping() failed "
                "SQLITE_CONSTRAINT:%d",
                create.row.suffix, status);
        return status;
    }
    if (status == ZO_STATUS_INVALID_VALUE)
    {
        return status;
    }
    QDB_LOG(kLogError, "%s: [%s]insertinActiveOIDMapping() failed :%d",
            create.row.suffix, status);
    QDB_LOG(kLogError, "%s: [%s]Status :%d", create.row.suffix, status);
    QDB_LOG(kLogError, "%s: [%s] %s%s sqlite errormsg: %s", create.row.suffix,
            kStem, create.row.suffix, SqliteErrorMessage().c_str());
    return status;
}

// Steps the bound INSERT, and once more if that fails. The bindings live
// through a failed step, and so serve both.
int WriteRow(const Create &create)
{
    sqlite3_stmt *statement = create.state.InsertStmt.statement;
    int status = execute_statement(statement);
    if (status == SQLITE_OK)
    {
        return status;
    }
    QDB_LOG(kLogError,
            "%s: [%s]1st atmpt Entry for %d %X couldn't inserted in "
            "%s.Error:%d",
            create.row.suffix, create.LogOid(), create.Oid(),
            create.row.table->name, status);
    LogRowError(kLogError, kStem, create.row);
    status = execute_statement(statement);
    if (status == SQLITE_OK)
    {
        return status;
    }
    // The mapping stays: the OID is live, and its row is the next refresh's or
    // delete's to find missing (invariant 1).
    QDB_LOG(kLogError,
            "%s: [%s]2nd atmptEntry for %d %X could not inserted in "
            "%s.Error:%d",
            create.row.suffix, create.LogOid(), create.Oid(),
            create.row.table->name, status);
    QDB_LOG(kLogError, "%s:  %s%s sqlite errormsg: %s ret:%d", kStem,
            create.row.suffix, SqliteErrorMessage().c_str(), status);
    return FailureOf(LastStepStatus());
}

void LogNotInserted(const Create &create, int ret)
{
    if (ret == SQLITE_CONSTRAINT)
    {
        return;
    }
    QDB_LOG(kLogError,
            "%s: [%s]Entry for %d %X could not inserted in %s Table. "
            "execute_statement returned error: %d",
            create.row.suffix, create.LogOid(), create.Oid(),
            create.row.table->name, ret);
    LogRowError(kLogError, kStem, create.row);
}

// Binds, maps and writes; the statement is clean afterwards (invariant 2),
// also where a bind failed half-way. Bound first: an
// object that can't be read leaves no mapping behind and is fetched again. Then
// the mapping, which the table's row refers to (invariant 1).
int InsertRow(const Create &create)
{
    const StatementReset reset(create.state.InsertStmt.statement);
    int ret = bind_values_to_statement(create.state.InsertStmt.statement,
                                       create.row, create.pDOH, create.key,
                                       BindMode::Insert, false);
    if (ret == SQLITE_OK)
    {
        ret = MapObject(create);
    }
    if (ret != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: [%s]Insert failed for %d %X. Error: %d",
                create.row.suffix, create.LogOid(), create.Oid(), ret);
        LogRowError(kLogTrace, kStem, create.row);
    }
    else
    {
        ret = WriteRow(create);
    }
    if (ret != SQLITE_OK)
    {
        LogNotInserted(create, ret);
    }
    return ret;
}

// What follows the main row within the turn. Returns the reader's status, with
// *pRow set on success.
int FinishRow(const Create &create, RowReading *pRow)
{
    // Before the row is read back: an array's elements are part of it.
    InsertArrays(create.row, create.pDOH);
    int status = ReadRow(create.row, create.Oid(), pRow);
    // Gone again already, by a cascade: a clearing takes no claims.
    if (status == SQLITE_DONE)
    {
        status = kFailed;
    }
    status = AddArrays(create.row, create.Oid(), status, pRow);
    // Last: whoever looks at the tag first finds the row behind it.
    if (InsertInTblEtag(create.row.table->name) != SQLITE_OK)
    {
        QDB_LOG(kLogError, "%s: TblEtag could not be updated for %s",
                create.row.table->name);
        LogRowError(kLogError, kStem, create.row);
    }
    return status;
}

void Announce(const Create &create, RowReading reading)
{
    // What the table holds, not what the object said (invariant 3).
    const JsonText text = RenderWholeRow(create.row, std::move(reading));
    if (text == nullptr)
    {
        QDB_LOG(kLogWarning, "%s: [%s] Failed to dump Json Obj to a string",
                create.row.suffix);
        return;
    }
    QDB_LOG(kLogTrace, "%s: createObjJsonStr= %s", text.get());
    ChangeJsonAdded(text.get());
}

// The statements of a create, in one turn. 0 or what failed; *pWritten tells
// whether there is a row.
int WriteInTurn(const Create &create, RowReading *pRow, bool *pWritten)
{
    // Its end is before the links are asked for (invariant 7).
    const DbTurn turn;
    int ret = PrepareInsert(create);
    if (ret == SQLITE_OK)
    {
        ret = InsertRow(create);
    }
    *pWritten = ret == SQLITE_OK;
    if (*pWritten)
    {
        CountSince(Figures().toCommit, tEventCame);
    }
    return *pWritten ? FinishRow(create, pRow) : ret;
}

// The steps under CreateObjMutex, with the object claimed; 0 or what failed.
// The links are fetched from the Data Manager behind the turn, and yet before
// the signal, so that whoever hears of the row finds them.
int RunSteps(const Create &create)
{
    RowReading reading;
    bool written = false;
    const int ret = WriteInTurn(create, &reading, &written);
    // Also of a row that couldn't be read back: it is there.
    if (written)
    {
        RefreshParentChildMapping(create.pDOH, create.Oid());
    }
    if (ret != SQLITE_OK)
    {
        QDB_LOG(kLogTrace,
                "%s: [%s] Failed to send dbus signal for insert. OID: %d",
                create.row.suffix, create.LogOid());
        LogRowError(kLogTrace, kStem, create.row);
        return ret;
    }
    NoteFate(Fate::Created);
    Announce(create, std::move(reading));
    return SQLITE_OK;
}

} // namespace

int CreateObject(const ObjTypeRow &row, const DataObjHeader *pDOH,
                 const DataObjHeader *pParentDOH)
{
    // The parent's key comes from the platform, and so before any lock.
    const Create create = {row, StateOf(row), pDOH, FetchParentKey(pParentDOH)};
    QDB_LOG(kLogTrace, "%s: [%s] %s%s Entry for OID: %d", row.suffix, kStem,
            row.suffix, create.LogOid());
    int ret = kFailed;
    if (QDVdbHandle == nullptr)
    {
        NoteFailure(kFailed);
        QDB_LOG(kLogError, "%s: [%s]Error: DB handle not available %d",
                row.suffix, create.LogOid());
    }
    else
    {
        Guard("create",
              [&]
              {
                  // Creates of one row come one by one, since they share its
                  // INSERT; those of other rows go on.
                  const MutexLock lock(create.state.CreateObjMutex);
                  WaitForDelete(create);
                  ret = RunClaimed(pDOH,
                                   [&]
                                   {
                                       return RunSteps(create);
                                   });
                  NoteEnd(StatusBehind(ret));
              });
    }
    const int status = ResultOf(ret);
    QDB_LOG(kLogTrace, "%s: [%s] %s%s Exit for OID: %d,status:%d ret:%d",
            row.suffix, kStem, row.suffix, create.LogOid(), status, ret);
    return status;
}

} // namespace qdb
