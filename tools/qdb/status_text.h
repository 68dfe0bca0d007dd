// What a look at the statistics says, for people and for programs.
#pragma once

#include "tools/qdb/statistics.h"

#include <string>

namespace qdb::tool
{

// One screen. `before`, an earlier look, adds what came to pass in between, per
// second; NULL: without.
std::string StatusForPeople(const Statistics &now, const Statistics *before);

// One object: {"running": true, "state": "live", "figures": {NAME: VALUE or
// [{"road": "bus", ..., "value": N}, ...]}}. Moments are seconds before the
// look, null for never; other times are seconds, too.
std::string StatusForPrograms(const Statistics &statistics);

// The text format of Prometheus, for a textfile collector: moments are Unix
// time, durations seconds.
std::string StatusForPrometheus(const Statistics &statistics);

} // namespace qdb::tool
