// The bus service thread: connects, offers the object with the four signals and
// the object manager, and serves the connection until it is cancelled.
#pragma once

namespace qdb
{

// Makes libsystemd draw the key of its hash tables, which it does at the first
// one of the process, without a lock. Before the first thread that uses a bus.
void SeedBusLibrary();

// Connects and serves. Returns 0 when the loop ended normally and 1 when a
// step failed; the connection is then given up for the life of the process.
// May be cancelled, but only while it waits for events, without a lock; the
// connection then stays open for the senders.
int DbusMain();

// Thread entry. The argument isn't used.
void *RunBusServiceThread(void *argument);

} // namespace qdb
