// The watch over a stop: what hangs in the platform doesn't keep the process.
//
// A thread of its own, made before everything else, since whatever it watches
// may hang, the stop thread included, and since a stop needs no memory. It
// sleeps until a stop is requested, or until a SIGTERM is pending that nobody
// can take yet. From then on:
//   - A ZOILRemoveEventListener that doesn't come back within a second is left
//     alone: the watch takes the steps of the stop that follow it.
//   - Stop records that can't be queued within a second, since somebody doesn't
//     give the queue's mutex back, keep no one else: the watch sets the cancel
//     flags.
//   - When nothing at all has moved for two seconds (core/waiting.h), the
//     process leaves what hangs behind: the last signals go out, readiness is
//     withdrawn, and the process ends with status 0, without closing the
//     database. A step that is under way then gets four more seconds: one that
//     clears all tables may be at work on the file, which would be left torn.
//   - These last acts may hang as well. SIGALRM ends them after two seconds.
// Queued records that move on are carried out, however long they take.
#pragma once

namespace qdb
{

// Starts the thread; SIGTERM has to be blocked. Logs when there can't be one; a
// stop then works as long as nothing hangs.
void StartWatch();

// SIGTERM isn't blocked any more: the watch need not look for it.
void WatchForRequestsOnly();

// Ends the watch and waits for its end; the last act of `main`. No thread
// starts from here on.
void EndWatch();

} // namespace qdb
