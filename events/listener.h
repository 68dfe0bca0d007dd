// The Data Manager's callback: filters events, copies those that are kept onto
// the queue, and carries out at once what cannot wait for a worker.
#pragma once

#include "platform/zoil.h"

namespace qdb
{

// Gives the callback to the Data Manager. Returns 0, also when the Data Manager
// is not up yet, or the status of its refusal.
int QDVEventListenerAttach();

// The callback. Runs on a thread of the platform, one call at a time; the
// record stays the caller's and holds evtSize bytes. Always 0. Does nothing
// once closing has begun. Records are refused, with a line in the log, when
// they are shorter than their type needs. Takes gQdbDBMutex to queue; a destroy
// of several objects and a detach run here, under the locks of the handlers.
int QDVEventListener(DataEventHeader *record);

} // namespace qdb
