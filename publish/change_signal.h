// Change signals: the JSON text of a changed row, sent on the bus.
//
// Fire and forget: nothing is retried, and a caller can't tell whether its
// signal went out. Signals leave in the order of the calls. Nothing is sent
// before readiness (DbusEventsEnabled).
#pragma once

namespace qdb
{

// Announce a created, changed or deleted row. jsonText is NUL-terminated and
// stays the caller's; NULL sends nothing. Always 0. Safe on any thread. Take
// the bus mutex for the sending; no lock of the caller may be a leaf.
int ChangeJsonAdded(const char *jsonText);
int ChangeJsonChanged(const char *jsonText);
int ChangeJsonRemoved(const char *jsonText);

} // namespace qdb
