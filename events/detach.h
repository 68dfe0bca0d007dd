// The Data Manager has gone: the mirror is emptied at once.
#pragma once

namespace qdb
{

// Clears all tables, tells the telemetry reader so table by table, brings back
// the root data objects, and starts a thread that loads the configuration
// again. Runs on the listener's thread, inside the gate.
void HandleDetach();

} // namespace qdb
