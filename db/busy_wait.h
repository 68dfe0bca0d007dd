// The wait inside a step for a database that another process holds.
#pragma once

namespace qdb
{

// Makes the open connection wait as before, at most a second in each step, but
// no longer than the patience of a stop. Waits for the step that is under way.
// Does nothing without a connection. For whoever carries out a stop; the
// connection must stay open meanwhile.
void ShortenBusyWaits();

} // namespace qdb
