// The order of the measuring.
#pragma once

#include "bench/report.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qdb::bench
{

struct Settings
{
    std::string service; // the program
    uint32_t objects = 5000;
    uint32_t subscribers = 1;
    uint64_t changes = 0; // to be made by one service before its heap counts
    bool quick = false;
};

// Measures everything. The sides take turns, slice by slice, so that a change
// of the machine's load meets both. Throws std::runtime_error when something
// fails, or when a side sent another number of signals than it should, fewer
// records, or wrote other rows.
std::vector<Figures> RunBench(const Settings &settings);

} // namespace qdb::bench
