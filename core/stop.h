// SIGTERM, and what it does.
//
// The signal handler only posts a semaphore; a thread of its own carries out
// the steps of a stop, so that no lock is ever taken in signal context:
//   running -> stopping [first SIGTERM]: no new thread starts, no more events
//     arrive, ten stop records end the workers, the NC and signal threads get
//     their cancel flags, the corruption and bus service threads are cancelled
//   stopping -> stopping [another SIGTERM]
//   any -> ended [FinishStop]
#pragma once

namespace qdb
{

// Keeps SIGTERM pending until LetStopIn. The first act of `main`.
void HoldStop();

// Installs the handler, starts the thread, and lets the signal in, on the
// calling thread alone.
void LetStopIn();

// Ends the thread and waits for it, so that what its steps use can be freed.
// Does nothing if LetStopIn was never called.
void FinishStop();

} // namespace qdb
