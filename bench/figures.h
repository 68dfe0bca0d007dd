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
    {"population",                        1.9,  0.53},
    {"create by event",                   1.65, 0.55},
    {"refresh, one column, one type",     2.3,  0.40},
    {"refresh, one column, twenty types", 2.05, 0.45},
    {"refresh, nothing changed",          2.4,  0.44},
    {"delete",                            1.5,  0.70},
    {"bunch destroy",                     0,    0},
};
// clang-format on

constexpr double kLatencyP50 = 250;  // microseconds, below
constexpr double kLatencyP99 = 3000; // microseconds, below
constexpr double kIdlePercent = 2.5; // of one processor, at most
constexpr double kHeapMiB = 9;       // above what there was before opening

constexpr double kMiB = 1 << 20;

// The loop, or the service.
using Side = Sample Slice::*;

// Microseconds per operation.
double PerOperation(const std::vector<Slice> &slices, Side side,
                    double Sample::*part);

double PerSecond(const std::vector<Slice> &slices, Side side);

// The service's against the loop's, slice by slice.
double SpeedRatio(const std::vector<Slice> &slices);
double ProcessorRatio(const std::vector<Slice> &slices);

// What the platform's delay leaves possible: ten workers that wait for the
// calls of their operations, and no more than without a delay. Part of it that
// was reached, and that is to be reached; 0: none.
double SlowShare(const Report &report, const SlowStep &step);
double SlowTarget(const SlowStep &step);

// The run with the lowest p99.
const Latency &BestLatency(const Report &report);

// Of one processor.
double IdlePercent(const Report &report);

double MiBAbove(int64_t bytes, int64_t before);

// The larger of the two times, above what there was before opening.
double MostHeapMiB(const Report &report);

} // namespace qdb::bench
