// All that a service may be told, in one life of seconds without their sleeps:
// objects of every type, events of every kind, changes of status, reloads, raw
// data, a detach and an attach.
//
// The service runs in the same process. Waiting goes on when something is as
// it should be, after a while when a fault keeps it from that, and at once when
// the service has ended.
#pragma once

#include "tests/support/temp_root.h"

#include <string>

namespace qdb::sweep
{

// Fills both managers, and listens to the service. To be called before it
// starts; no sleep of its takes long from here on. `root`, with the database
// and the pipe, stays as long as the process.
void Begin(const test::TempRoot &root);

// From the start of the service to the attach. What hangs is let go when it
// keeps the service from going on.
void Play();

// Waits until what began while something failed has ended: a pass, and what
// workers have in hand.
void AwaitEndOfFault();

// Tells of the end and the creation of all objects and attributes that there
// were and are, and waits until the service has heard it. False when it hears
// nothing from the bus.
bool AnnounceAll();

// The Data Manager goes, which clears all rows, and comes back with all
// objects.
void DetachAndAttach();

// Changes an object, and waits for the signal and the record that tell of it.
// Returns what hasn't come; "": nothing is missing.
std::string FollowChange(int patienceMs);

// The service has ended; nothing is waited for from here on.
void NoteEnd();
bool HasEnded();

} // namespace qdb::sweep
