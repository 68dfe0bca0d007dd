// From an event record of the Data Manager to the handlers: for each OID the
// object is fetched and the rows of its type run their handler, in a status
// loop.
//
// A failure never stops a record, and success never resets it: the last
// failure is the record's result. No lock is held while a handler runs.
#pragma once

#include "platform/zoil.h"

#include <cstdint>

namespace qdb
{

// Carries out a create, dirty list or destroy record. The record holds evtSize
// bytes, at least its fixed part; it stays the caller's. Returns 0; 256 when
// an object was gone; -1 or 11 when a handler failed; 2 for a NULL record; 257
// when the count is above 4,000 or does not fit in the record, and then nothing
// is done.
int ObjectNotification(const DataEventHeader *record, uint16_t eventType);

// The same for a caller that must not outlast a stop: it ends between two
// objects once one has been requested.
int NotifyUntilStop(const DataEventHeader *record, uint16_t eventType);

} // namespace qdb
