// The catalogue of object types: handlers, tables and run-time state, one row
// each.
//
// The 161 handlers of a kind are one routine (handlers.h) over the row; the
// table below gives it a function pointer per row, so that callers can treat
// rows as data. Two types have two rows, told apart by their predicates.
//
// To add an object type: 1. its column list in objects/schema/, 2. its line in
// objects/schema/rows.h, in order, 3. if it shares its type with another table,
// a predicate in predicates.h and in PredicateOf(), 4. its name in
// TelemetryDetachTableList, 5. the checked-in renderings under tests/ and
// docs/.
#pragma once

#include "db/statement.h"
#include "objects/schema/table.h"
#include "platform/zoil.h"

#include <pthread.h>

#include <array>

namespace qdb
{

// Put an object into the database, bring its row up to date, remove it. The
// objects stay the caller's; the parent may be NULL. See handlers.h.
using CreateFunction = int (*)(const DataObjHeader *pDOH,
                               const DataObjHeader *pParentDOH);
using RefreshFunction = CreateFunction;
using DeleteFunction = int (*)(const DataObjHeader *pDOH);

// 0 if the row applies to the object. See predicates.h.
using MatchFunction = int (*)(DataObjHeader *pDOH,
                              const DataObjHeader *pParentDOH);

struct ObjTypeRow
{
    uint32_t objType;
    CreateFunction CreateObjFP;
    RefreshFunction RefreshObjFP;
    DeleteFunction DeleteObjFP;
    MatchFunction ObjMatchFP; // NULL: every object of the type
    const Table *table;
    const char *suffix; // of the handlers' names in log lines
};

inline constexpr size_t kRowCount = 161;

extern const std::array<ObjTypeRow, kRowCount> ObjectTypeTable;

// What a row needs at run time. Static storage; a statement is used only under
// the mutex of its operation.
struct ObjRowState
{
    pthread_mutex_t CreateObjMutex = PTHREAD_MUTEX_INITIALIZER;
    StatementSlot InsertStmt; // under CreateObjMutex

    pthread_mutex_t RefreshObjMutex = PTHREAD_MUTEX_INITIALIZER;
    StatementSlot UpdateStmt; // under RefreshObjMutex

    pthread_mutex_t SelectObjMutex = PTHREAD_MUTEX_INITIALIZER;
    StatementSlot SelectStmt; // under SelectObjMutex

    pthread_mutex_t DeleteObjMutex = PTHREAD_MUTEX_INITIALIZER;

    // The OID whose delete is under way, for creates to wait on. Wider than an
    // OID, so that "none" is no OID.
    pthread_mutex_t DeleteWaitMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t DeleteWaitCond = PTHREAD_COND_INITIALIZER;
    int64_t DeletingOID = kNoOid; // under DeleteWaitMutex

    static constexpr int64_t kNoOid = -1;
};

// The state of a row of ObjectTypeTable.
ObjRowState &StateOf(const ObjTypeRow &row);

// The only row, or the first one, of a type; NULL for a type without one.
const ObjTypeRow *FindRow(uint32_t objType);

// The types of configuration attributes; their objects come from the
// configuration manager, never from the Data Manager.
constexpr bool IsConfigType(uint32_t objType)
{
    return objType >= 0x4051 && objType <= 0x4054;
}

// Which of the variants a row belongs to.
bool HasPreviousValues(const ObjTypeRow &row);
bool KeepsMissedRefreshes(const ObjTypeRow &row);

// Finalises the statements of all rows. No thread may use them any more.
void FinalizeHandlerStatements();

} // namespace qdb
