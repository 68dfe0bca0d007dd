// SIGTERM, and what it does.
//
// The signal handler only posts a semaphore; a thread of its own carries out
// the steps of a stop, so that no lock is ever taken in signal context:
//   running -> stopping [first SIGTERM]: no new thread starts, no more events
//     arrive, ten stop records end the workers, the NC and signal threads get
//     their cancel flags, the corruption and bus service threads are cancelled
//   stopping -> stopping [another SIGTERM]
//   any -> ended [FinishStop]
// What hangs on the way, the removal of the listener included, is the watch's
// (service/watch.h). All that a stop needs is there before it comes: it takes
// no memory.
#pragma once

namespace qdb
{

// Keeps SIGTERM pending until LetStopIn, and starts the watch. The first act of
// `main`.
void HoldStop();

// Installs the handler, starts the thread, and lets the signal in, on the
// calling thread alone. When there can't be a thread the log tells so, and the
// signal ends the process at once, as it does by default.
void LetStopIn();

// A stop from within, on the calling thread: all its steps.
void StopService();

// The steps behind the removal of the listener, once. Behind FinishStop does
// nothing.
void EndThreads();

// Whether EndThreads hasn't got the stop records on the queue yet, whose mutex
// others may have.
bool QueueingStopRecords();

// Ends the thread and waits for it, so that what the steps use can be freed.
void FinishStop();

} // namespace qdb
