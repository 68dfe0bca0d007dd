// The workloads on a platform that takes its time.
#pragma once

#include "bench/counter.h"
#include "bench/report.h"

#include <cstdint>
#include <string>

namespace qdb::bench
{

// Creates, refreshes and deletes objects of twenty types with several delays of
// every call about an object, and all of it once more while one call about
// another object hangs. Throws std::runtime_error as RunBench does.
Figures MeasureSlowPlatform(const std::string &program,
                            Subscribers &subscribers, uint32_t objects);

} // namespace qdb::bench
