// Repeating what failed, and putting right the tables whose counts are off.
#pragma once

namespace qdb
{

// Repeats the operations on the fail queue, then compares the counts of three
// tables with the Data Manager's and re-creates or refreshes what doesn't
// agree. Returns the status of the last table: 0; 256 when an object or list
// was missing; -1 or 11. None of the reload mutexes is held.
int CheckDMObjCountandReCreateEntries();

} // namespace qdb
