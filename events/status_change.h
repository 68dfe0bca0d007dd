// Status changes: the Data Manager says that an object's state is another, and
// sends the object along.
#pragma once

#include "core/object_order.h"
#include "platform/zoil.h"

namespace qdb
{

// Carries out a status change record. The types that the NC thread reads again
// get their reload at once, all objects of the kind; of any other object each
// row of its type is refreshed from the record. The record holds evtSize bytes
// and stays the caller's. Returns 0, also when the type has no row and when the
// keyed object, which others are told from, can't be had; 2 for a NULL record
// or an object that doesn't fit in it; 272 without memory; -1 or 11 when a
// handler failed; or the reload's status. `taken` is the tick at which the
// record was taken: what rows show that is newer than that stays, or is written
// from what the Data Manager has now. Takes the reload's mutex.
int ObjectNotificationStChg(const DataEventHeader *event,
                            uint64_t taken = Tick());

} // namespace qdb
