// What follows from the measurements: medians over the slices, and the targets.
#pragma once

#include "bench/report.h"

namespace qdb::bench
{

// Ratios to the plain loop that the service is to reach: speed at least,
// processor time per operation at most. 0: none.
struct Workload
{
    const char *name;
    double speed;
    double processor;
};

// clang-format off
constexpr Workload kWorkloads[kWorkloadCount] = {
    {"population",                        2.0,  0.50},
    {"create by event",                   1.6,  0.70},
    {"refresh, one column, one type",     2.0,  0.55},
    {"refresh, one column, twenty types", 2.0,  0.60},
    {"refresh, nothing changed",          2.5,  0.45},
    {"delete",                            1.15, 0.90},
    {"bunch destroy",                     0,    0},
};
// clang-format on

constexpr double kLatencyP50 = 250;  // microseconds, below
constexpr double kLatencyP99 = 3000; // microseconds, below
constexpr double kIdlePercent = 2.5; // of one processor, at most
constexpr double kHeapMiB = 9;       // above what there was before opening

constexpr double kMiB = 1 << 20;

// Microseconds per operation.
double PerOperation(const std::vector<Slice> &slices, SideIndex side,
                    double Sample::*part);

double PerSecond(const std::vector<Slice> &slices, SideIndex side);

// The service's against a loop's, slice by slice.
double SpeedRatio(const std::vector<Slice> &slices, SideIndex loop);
double ProcessorRatio(const std::vector<Slice> &slices, SideIndex loop);

// The run with the lowest p99.
const Latency &BestLatency(const Report &report);

// Of one processor.
double IdlePercent(const Report &report);

double MiBAbove(int64_t bytes, int64_t before);

} // namespace qdb::bench
