// The order of the measuring.
#pragma once

#include "bench/report.h"

namespace qdb::bench
{

// Measures everything. The three sides take turns, slice by slice, so that a
// change of the machine's load meets all of them. Throws std::runtime_error
// when something fails, or when a side did not do what the others did: sent a
// different number of signals or records, other texts, or wrote other rows.
Report RunBench(const Settings &settings);

} // namespace qdb::bench
