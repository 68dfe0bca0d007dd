// The refresh handler. Its invariants, and their numbers, stand in handlers.h.
//
// 1. The parent's key is fetched, without a lock.
// 2. The object is claimed; one that is out of date is refused there.
// 3. In one turn the row is read, written, its arrays with it, and read again.
// 4. Behind the turn, with the claim still held, the difference is announced.

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
#include "objects/row_log.h"
#include "objects/row_reader.h"
#include "objects/sql_text.h"
#include "publish/change_signal.h"
#include "queues/fail_queue.h"

namespace qdb
{
namespace
{

constexpr char kStem[] = "RefreshObj_";

struct Refresh
{
    const ObjTypeRow &row;
    ObjRowState &state;
    const DataObjHeader *pDOH;
    const KeyOfParent key;
    int ret = SQLITE_OK; // of the statement or bind that failed, for the log

    uint32_t Oid() const
    {
        return pDOH->objID;
    }
    int LogOid() const
    {
        return StoredOid(pDOH->objID);
    }
};

// An object without a row. Mostly its create is still on the queue, and will
// write what this refresh would have written. It isn't left at that where
// creates are known to fail: types whose failures are kept come back
// later.
int KeepForLater(const Refresh &refresh)
{
    const int index = QdbFailObjTypeIndex(refresh.pDOH->objType);
    if (!refresh.row.Has(Trait::RetriesMissedRefresh))
    {
        return SQLITE_DONE;
    }
    if (index != -1)
    {
        QDB_LOG(kLogInvalid,
                "%s: Refresh_[%s]: Get Row Data Failed so adding to Fail "
                "Queue objtype:0x%x objID:0x%x objtype index %d",
                refresh.row.suffix, refresh.pDOH->objType, refresh.Oid(),
                index);
        QdbFailenQueue(gFailQueue, refresh.Oid(),
                       FailedOperation::RefreshFailure, index);
    }
    return kFailed;
}

// What the row shows, and what was announced last (invariant 5).
int ReadBefore(const Refresh &refresh, RowReading *pBefore)
{
    int status = ReadRow(refresh.row, refresh.Oid(), pBefore);
    if (status == SQLITE_DONE)
    {
        status = KeepForLater(refresh);
    }
    return AddArrays(refresh.row, refresh.Oid(), status, pBefore);
}

// Fills the slot whose mutex is RefreshObjMutex.
int PrepareUpdate(const Refresh &refresh)
{
    QDB_LOG(kLogTrace, "%s: [%s]line=%d", refresh.row.suffix, __LINE__);
    QDB_LOG(kLogTrace, "%s: [%s]line=%d", refresh.row.suffix, __LINE__);
    return PrepareForRow(refresh.row, refresh.Oid(), kStem,
                         refresh.state.UpdateStmt, UpdateSql);
}

void LogNotUpdated(const Refresh &refresh, const char *attempt, int status)
{
    QDB_LOG(kLogError,
            "%s: [%s]%s attmptEntry for %d %X could not updated in %s "
            "Tbl.Error: %d",
            refresh.row.suffix, attempt, refresh.LogOid(), refresh.Oid(),
            refresh.row.table->name, status);
    LogRowError(kLogError, kStem, refresh.row);
}

// Steps the bound UPDATE, and once more if that fails. The row stays as it was
// then, and so does what is known of it.
int WriteRow(const Refresh &refresh)
{
    sqlite3_stmt *statement = refresh.state.UpdateStmt.statement;
    int status = execute_statement(statement);
    if (status == SQLITE_OK)
    {
        return status;
    }
    LogNotUpdated(refresh, "1st", status);
    status = execute_statement(statement);
    if (status == SQLITE_OK)
    {
        return status;
    }
    // Asked before anything else steps: execute_statement only says that it
    // failed, and a corrupt database must be told from all else.
    const int result = FailureOf(LastStepStatus());
    LogNotUpdated(refresh, "2nd", status);
    if (refresh.row.Has(Trait::RetriesRefresh))
    {
        QDB_LOG(kLogTrace,
                "%s: Refresh_[A03]:Sqlite refresh entry failed so add to Fail "
                "Queue objtype:0x%x objID:0x%x objtype index %d",
                refresh.pDOH->objType, refresh.Oid(), 0);
        // No index: one type keeps its refreshes, and the drain knows which.
        QdbFailenQueue(gFailQueue, refresh.Oid(), FailedOperation::Refresh, 0);
    }
    return result;
}

// Binds and writes; the statement is clean afterwards (invariant 2).
int UpdateRow(Refresh &refresh)
{
    const StatementReset reset(refresh.state.UpdateStmt.statement);
    refresh.ret = bind_values_to_statement(
        refresh.state.UpdateStmt.statement, refresh.row, refresh.pDOH,
        refresh.key, BindMode::Update, refresh.row.Has(Trait::RawValues));
    if (refresh.ret != SQLITE_OK)
    {
        QDB_LOG(kLogError, "%s: [%s]Bind failed for %d %X. Error: %d",
                refresh.row.suffix, refresh.LogOid(), refresh.Oid(),
                refresh.ret);
        LogRowError(kLogError, kStem, refresh.row);
        return refresh.ret;
    }
    refresh.ret = WriteRow(refresh);
    if (refresh.ret == SQLITE_OK)
    {
        CountSince(Figures().toCommit, tEventCame);
    }
    return refresh.ret;
}

// What is announced is what the table holds now (invariant 3): SQLite may have
// stored a value in another form than the object's.
int ReadAfter(const Refresh &refresh, RowReading *pAfter)
{
    int status = ReadRow(refresh.row, refresh.Oid(), pAfter);
    if (status == SQLITE_DONE)
    {
        status = kFailed;
    }
    return AddArrays(refresh.row, refresh.Oid(), status, pAfter);
}

// Announces what changed, if more than the tag did: that is stamped by every
// UPDATE, and would make each refresh a change.
void Announce(const Refresh &refresh, RowReading before, RowReading after)
{
    // JSON takes as long as the statements, and needs no turn.
    int changes = 0;
    const JsonText text = RenderDifference(refresh.row, std::move(before),
                                           std::move(after), &changes);
    if (changes == 0)
    {
        NoteFate(Fate::Unchanged);
        QDB_LOG(kLogWarning,
                "%s: [%s] No change set found for %d %X. Error: %d",
                refresh.row.suffix, refresh.LogOid(), refresh.Oid(), 0);
        return;
    }
    NoteFate(Fate::Changed);
    if (text != nullptr)
    {
        QDB_LOG(kLogTrace, "%s: Json_Out_Str = %s", text.get());
        ChangeJsonChanged(text.get());
    }
}

// The statements of a refresh, in one turn.
int WriteInTurn(Refresh &refresh, RowReading *pBefore, RowReading *pAfter)
{
    // From the first reading to the last nobody else's statement comes between,
    // unless a busy database makes the turn end early; the claim holds even
    // then.
    const DbTurn turn;
    int status = ReadBefore(refresh, pBefore);
    // Also without a row: a statement that can't be prepared outweighs that.
    const int prepared = PrepareUpdate(refresh);
    if (prepared != SQLITE_OK)
    {
        refresh.ret = prepared;
        return prepared;
    }
    if (status == SQLITE_OK)
    {
        status = UpdateRow(refresh);
    }
    if (status == SQLITE_OK)
    {
        // Replaced as a whole, before they are read as a part of the row.
        InsertArrays(refresh.row, refresh.pDOH);
        status = ReadAfter(refresh, pAfter);
    }
    return status;
}

// The steps under RefreshObjMutex, with the object claimed.
int RunSteps(Refresh &refresh)
{
    RowReading before;
    RowReading after;
    const int status = WriteInTurn(refresh, &before, &after);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogWarning,
                "%s: [%s] Failed to select Json Obj for %d %X. Error: %d",
                refresh.row.suffix, refresh.LogOid(), refresh.Oid(), status);
        return status;
    }
    Announce(refresh, std::move(before), std::move(after));
    return SQLITE_OK;
}

} // namespace

int RefreshObject(const ObjTypeRow &row, const DataObjHeader *pDOH,
                  const DataObjHeader *pParentDOH)
{
    // The key comes from the platform, and so before any lock (invariant 7).
    Refresh refresh = {row, StateOf(row), pDOH, FetchParentKey(pParentDOH)};
    QDB_LOG(kLogTrace, "%s: [%s] %s%s Entry for OID: %d", row.suffix, kStem,
            row.suffix, refresh.LogOid());
    int status = kFailed;
    if (QDVdbHandle == nullptr)
    {
        NoteFailure(kFailed);
        QDB_LOG(kLogError, "%s: [%s]Error: DB handle not available oID:%d",
                row.suffix, refresh.LogOid());
        LogRowError(kLogError, kStem, row);
    }
    else
    {
        Guard("refresh",
              [&]
              {
                  // Outside the claim, as in every handler, so that nobody
                  // waits for a mutex whose holder waits for his claim.
                  const MutexLock lock(refresh.state.RefreshObjMutex);
                  status = RunClaimed(pDOH,
                                      [&]
                                      {
                                          return RunSteps(refresh);
                                      });
                  NoteEnd(StatusBehind(status));
              });
    }
    QDB_LOG(kLogTrace, "%s: [%s] %s%s Exit for OID: %d,status:%d ret:%d",
            row.suffix, kStem, row.suffix, refresh.LogOid(), status,
            refresh.ret);
    return status;
}

} // namespace qdb
