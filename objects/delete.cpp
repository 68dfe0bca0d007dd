// The delete handler. Its invariants, and their numbers, stand in handlers.h.
//
// 1. DeletingOID tells creates of the row which OID is about to go.
// 2. The object is claimed. Whoever has it in hand is waited for, on the Data
//    Manager's callback only for a while.
// 3. In one turn the row is read, and its mapping deleted; the row goes with
//    it by a cascade, and so do its elements and links.
// 4. With the claim still held the row is announced as it was.
// 5. On every way out DeletingOID is free again, and creates go on.

#include "core/fate.h"
#include "core/guard.h"
#include "core/lock.h"
#include "core/object_order.h"
#include "core/state.h"
#include "core/status.h"
#include "db/clearing.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "db/turn.h"
#include "objects/array_tables.h"
#include "objects/change_json.h"
#include "objects/handlers.h"
#include "objects/row_log.h"
#include "objects/row_reader.h"
#include "publish/change_signal.h"

#include <cstdio>

namespace qdb
{
namespace
{

constexpr char kStem[] = "DeleteObj_";

// Tells creates of the row that this OID is being deleted, after any delete of
// the same OID. Before the claim is waited for: a create that comes from now on
// waits for the end of the delete instead of finding the OID mapped.
void BeginDelete(const ObjTypeRow &row, ObjRowState &state, uint32_t oid)
{
    const MutexLock lock(state.DeleteWaitMutex);
    while (state.DeletingOID == oid)
    {
        QDB_LOG(kLogTrace, "%s: [%s]Inside %s%s sleeping till it complete ",
                row.suffix, kStem, row.suffix);
        pthread_cond_wait(&state.DeleteWaitCond, &state.DeleteWaitMutex);
    }
    state.DeletingOID = oid;
}

// Lets creates of the OID go on, on every way out of a delete.
class DeleteEnd
{
  public:
    explicit DeleteEnd(ObjRowState &state) : state_(state)
    {
    }
    ~DeleteEnd()
    {
        const MutexLock lock(state_.DeleteWaitMutex);
        state_.DeletingOID = ObjRowState::kNoOid;
        pthread_cond_broadcast(&state_.DeleteWaitCond);
    }
    DeleteEnd(const DeleteEnd &) = delete;
    DeleteEnd &operator=(const DeleteEnd &) = delete;

  private:
    ObjRowState &state_;
};

void Announce(const ObjTypeRow &row, RowReading reading)
{
    if (const JsonText text = RenderWholeRow(row, std::move(reading)))
    {
        QDB_LOG(kLogTrace, "%s: Json_Out_Str = %s", text.get());
        ChangeJsonRemoved(text.get());
    }
}

void LogEnd(const ObjTypeRow &row, uint32_t oid, int status)
{
    QDB_LOG(kLogTrace, "%s: [%s] %s%s Exit for OID: %d,status:%d", row.suffix,
            kStem, row.suffix, StoredOid(oid), status);
}

// The statements of a delete, in one turn. Every end but that of a success is
// logged, and that of a failed removal isn't.
int RemoveInTurn(const ObjTypeRow &row, uint32_t oid, RowReading *pReading)
{
    // The row is read before it goes: a cascade from its mapping takes it
    // along, and a removal is announced with the last values.
    const DbTurn turn;
    int read = ReadRow(row, oid, pReading);
    read = AddArrays(row, oid, read, pReading);
    // What can't be read isn't removed: nobody could be told of it, and a
    // consumer would keep it for ever.
    if (read != SQLITE_OK || pReading->IsEmpty())
    {
        QDB_LOG(kLogWarning,
                "%s: DEL[%s] Error in sending dbus signal on delete row for "
                "OID: %d",
                row.suffix, StoredOid(oid));
        LogEnd(row, oid, FailureOf(read));
        NoteFailure(read == SQLITE_OK ? SQLITE_DONE : read);
        return FailureOf(read);
    }
    const int status = DeleteObjectByOID(oid);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace,
                "%s: Delete_[%s]: DeleteObjectByOID failed with return status "
                "%d",
                row.suffix, status);
        NoteFailure(StatusBehind(status));
        return FailureOf(status == kFailed ? LastStepStatus() : status);
    }
    CountSince(Figures().toCommit, tEventCame);
    NoteFate(Fate::Removed);
    return SQLITE_OK;
}

int RemoveRow(const ObjTypeRow &row, uint32_t oid, Destroy &event)
{
    // As old as its record: a destroy that waited long on the queue is older
    // than an object that was fetched meanwhile.
    ObjectClaim claim(oid, event.taken, event.patienceMs);
    if (!claim.IsHeld())
    {
        event.heldUp = true;
        return kFailed;
    }
    // Asked before it is noted that the row is gone. A row that shows something
    // newer than this destroy goes all the same, since that is what was asked
    // for; the caller has the object created again then.
    const bool overtaken = claim.IsOvertaken();
    RowReading reading;
    const int status = RemoveInTurn(row, oid, &reading);
    // Also when nothing was removed: an object that was fetched before this
    // destroy must not come back as a row (invariant 6).
    claim.NoteKnown();
    if (status != SQLITE_OK)
    {
        return status;
    }
    event.overtaken = event.overtaken || overtaken;
    // With the claim still held, so that no Added overtakes it.
    Announce(row, std::move(reading));
    LogEnd(row, oid, SQLITE_OK);
    return SQLITE_OK;
}

int DeleteLocked(const ObjTypeRow &row, const DataObjHeader *pDOH,
                 Destroy &event)
{
    ObjRowState &state = StateOf(row);
    const PatientLock lock(state.DeleteObjMutex, event.patienceMs);
    if (!lock.IsHeld())
    {
        event.heldUp = true;
        return kFailed;
    }
    // Before DeletingOID is set, so that no way out leaves a create waiting.
    const DeleteEnd end(state);
    if (pDOH == nullptr || QDVdbHandle == nullptr)
    {
        NoteFailure(kFailed);
        QDB_LOG(kLogError,
                "%s: [%s]Invalid input parameters. Exiting:", row.suffix);
        return kFailed;
    }
    const uint32_t oid = pDOH->objID;
    QDB_LOG(kLogTrace, "%s: [%s] %s%s Entry for OID: %d", row.suffix, kStem,
            row.suffix, StoredOid(oid));
    BeginDelete(row, state, oid);
    return RemoveRow(row, oid, event);
}

} // namespace

int DeleteObject(const ObjTypeRow &row, const DataObjHeader *pDOH,
                 Destroy *event)
{
    char function[128];
    std::snprintf(function, sizeof(function), "%s%s", kStem, row.suffix);
    LogEntry(function);
    Destroy ofThePresent = {Tick()};
    int status = kFailed;
    Guard("delete",
          [&]
          {
              status = DeleteLocked(row, pDOH,
                                    event == nullptr ? ofThePresent : *event);
          });
    LogExit(function);
    return status;
}

} // namespace qdb
