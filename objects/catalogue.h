// The catalogue of object types at run time.
//
// `ObjectTypeTable` has a row for each of them, with all that is special about
// it (objects/schema/rows.h). The handlers of all rows are three routines
// (handlers.h). Two types have two rows, told apart by predicates.h.
//
// To add an object type: its column list in objects/schema/, its line in
// rows.h, and the checked-in renderings under tests/ and docs/.
#pragma once

#include "db/mapping.h"
#include "db/statement.h"
#include "objects/schema/rows.h"
#include "objects/sql_text.h"
#include "platform/zoil.h"

#include <pthread.h>

namespace qdb
{

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

// Fills a slot of the row, whose mutex the caller holds, with the statement
// that `makeSql` writes, unless it is full already. Returns 0, or the status of
// a failed prepare, after which the slot is still empty; the log tells of that
// by the OID and by the handler's stem, such as "CreateObj_".
int PrepareForRow(const ObjTypeRow &row, uint32_t oid, const char *stem,
                  StatementSlot &slot, SqlText (*makeSql)(const ObjTypeRow &));

// The only row, or the first one, of a type; NULL for a type without one.
const ObjTypeRow *FindRow(uint32_t objType);

// The first row of a reload, and the reload of a type.
const ObjTypeRow &RowOf(Reload reload);
Reload ReloadOf(uint32_t objType);

// What the row's creates do while their OID is still mapped.
DeletePatience PatienceOf(const ObjTypeRow &row);

// Whether it is an attribute's type; false for a type without a row.
bool IsConfigType(uint32_t objType);

// A type whose creates are retried is known to the fail queue by its place
// among all of these, in the order of their numbers, from 1. That of the type;
// -1 for any other type, 0 for type 0.
int QdbFailObjTypeIndex(uint32_t objType);

// The row of such a place; NULL when there is none.
const ObjTypeRow *RowOfFailIndex(int index);

// Finalises the statements of all rows. No thread may use them any more.
void FinalizeHandlerStatements();

} // namespace qdb
