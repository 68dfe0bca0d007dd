// The order of the measuring.
#pragma once

#include "bench/report.h"

namespace qdb::bench
{

// Measures everything. The sides take turns, slice by slice, so that a change
// of the machine's load meets both. Throws std::runtime_error when something
// fails, or when a side sent another number of signals or records than it
// should, or wrote other rows.
Report RunBench(const Settings &settings);

} // namespace qdb::bench
