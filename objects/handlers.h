// Create, Refresh and Delete: one algorithm each, for every row of the
// catalogue.
//
// Invariants:
// 1. A mapping row comes before the table's row and goes before it; nothing is
//    rolled back, and a failure leaves what is already written.
// 2. A row's statement is left clean whenever its mutex is released.
// 3. What is announced is read back from the table, never taken from the
//    object.
// 4. A create of an OID whose delete is under way in the same row waits for
//    the delete's end, and so comes after it.
//
// Locks, outermost first: the row's mutex of the operation; DeleteWaitMutex for
// a moment; one statement mutex; SqliteStepMutex; and last the bus mutex for
// the signal. Create, Refresh and Delete of one row exclude nobody but their
// own kind.
#pragma once

#include "objects/catalogue.h"

namespace qdb
{

// Maps the object, writes its row, touches the table's tag, records the parent
// links and announces the row. The object holds objSize bytes; the parent,
// whose key goes into the row, may be NULL. Returns 0, also when only the
// announcement failed; 8216 for an object that cannot be read as it stands; 11
// for a corrupt database; otherwise -1. An OID that is already mapped is a
// failure that leaves its row alone.
int CreateObject(const ObjTypeRow &row, const DataObjHeader *pDOH,
                 const DataObjHeader *pParentDOH);

// Brings the object's row up to date and announces it if a column other than
// the tag has changed. Returns 0, also when nothing changed; 101 when there is
// no row (-1 for types whose missed refreshes are kept); the status of a failed
// read, prepare or bind; 11 or -1 when the update failed.
int RefreshObject(const ObjTypeRow &row, const DataObjHeader *pDOH,
                  const DataObjHeader *pParentDOH);

// Removes the object and announces its last row. Only objID and objType are
// looked at; NULL fails. Returns 0, 11 for a corrupt database, otherwise -1. An
// OID without a row is a failure that leaves its mapping alone.
int DeleteObject(const ObjTypeRow &row, const DataObjHeader *pDOH);

} // namespace qdb
