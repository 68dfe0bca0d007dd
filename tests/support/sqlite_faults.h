// Statuses that SQLite would give on another day.
//
// Executables that link this wrap sqlite3_step and sqlite3_prepare_v2. A fault
// meets the calls whose SQL contains a text: after `skip` of them that work,
// `times` give the status without running. A prepare that is to give SQLITE_ROW
// or SQLITE_DONE runs all the same.
#pragma once

#include <string>

namespace qdb::test
{

inline constexpr int kForever = 1 << 30;

void FailSteps(const std::string &sql, int status, int times, int skip = 0);
void FailPrepares(const std::string &sql, int status, int times, int skip = 0);

// Calls of this thread neither count nor fail.
extern thread_local bool tSparesSqlite;

// Removes all faults and counts.
void ClearSqliteFaults();

// The same, and nothing is counted from here on.
void IgnoreSqlite();

// Steps and prepares since then, those that a fault met among them.
int StepCount(const std::string &sql);
int PrepareCount(const std::string &sql);

} // namespace qdb::test
