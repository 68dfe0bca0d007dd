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
// 5. From the first reading to the sending the object is claimed
//    (core/object_order.h): its signals leave in the order of its commits, and
//    what one gives as old is what the last one gave as new.
// 6. A row is never written from something older than what it shows.
// 7. Nothing is asked of the platform with the turn at the database in hand:
//    the parent's key is fetched before the claim, the links behind the turn.
//
// Locks, outermost first: the row's mutex of the operation; DeleteWaitMutex for
// a moment; the claim; the turn (db/turn.h); one statement mutex, tried only;
// SqliteStepMutex; and last, without the turn, the bus mutex for the signal.
// Create, Refresh and Delete of one row exclude nobody but their own kind and
// who has the same object in hand.
#pragma once

#include "objects/catalogue.h"

namespace qdb
{

// Maps the object, writes its row, touches the table's tag, records the parent
// links and announces the row. The object holds objSize bytes; the parent,
// whose key goes into the row, may be NULL. Returns 0, also when only the
// announcement failed; 8216 for an object that cannot be read as it stands or,
// under FetchesAgain, is out of date; 11 for a corrupt database; otherwise -1.
// An OID that is already mapped is a failure that leaves its row alone.
int CreateObject(const ObjTypeRow &row, const DataObjHeader *pDOH,
                 const DataObjHeader *pParentDOH);

// Brings the object's row up to date and announces it if a column other than
// the tag has changed. Returns 0, also when nothing changed; 101 when there is
// no row (-1 for types whose missed refreshes are kept); the status of a failed
// read, prepare or bind; 8216 under FetchesAgain for an object that is out of
// date; 11 or -1 when the update failed.
int RefreshObject(const ObjTypeRow &row, const DataObjHeader *pDOH,
                  const DataObjHeader *pParentDOH);

// A destroy event on its way through the delete handlers.
struct Destroy
{
    uint64_t taken;         // the tick at which its record was taken
    int patienceMs = -1;    // for the row's mutex and the claim; -1: no end
    bool heldUp = false;    // out: nothing was done, for want of patience
    bool overtaken = false; // out: the removed row showed something newer, or a
                            // newer object was kept out by it
};

// Removes the object and announces its last row. Only objID and objType are
// looked at; NULL fails. Without an event it is of the present and waits as
// long as it takes. Returns 0, 11 for a corrupt database, otherwise -1. An OID
// without a row is a failure that leaves its mapping alone.
int DeleteObject(const ObjTypeRow &row, const DataObjHeader *pDOH,
                 Destroy *event = nullptr);

} // namespace qdb
