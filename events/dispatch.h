// From an event record of the Data Manager to the handlers: for each OID the
// object is fetched and the rows of its type run their handler, in a status
// loop.
//
// A failure never stops a record, and success never resets it: the last
// failure is the record's result. No lock is held while a handler runs.
#pragma once

#include "core/object_order.h"
#include "platform/zoil.h"

#include <cstdint>

namespace qdb
{

// Carries out a create, dirty list or destroy record, which was taken at that
// tick of core/object_order.h; by default now. The record holds evtSize bytes,
// at least its fixed part; it stays the caller's. Returns 0; 256 when an object
// was gone; -1 or 11 when a handler failed; 2 for a NULL record; 257 when the
// count is above 4,000 or does not fit in the record, and then nothing is done.
//
// A destroy that turns out to have been overtaken by a create of its object
// puts a create behind the queue, so that the object is there in the end.
int ObjectNotification(const DataEventHeader *record, uint16_t eventType,
                       uint64_t taken = Tick());

// The same for the Data Manager's own thread, which must not outlast a stop nor
// wait for who may be waiting for the Data Manager: it ends between two objects
// once a stop has been requested, and leaves an object that another thread has
// in hand to the queue.
int NotifyOnCallback(const DataEventHeader *record, uint16_t eventType);

} // namespace qdb
