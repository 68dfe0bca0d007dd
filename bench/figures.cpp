#include "bench/figures.h"

#include <algorithm>
#include <cmath>

namespace qdb::bench
{
namespace
{

// Ratios to the plain loop that the service is to reach: speed at least,
// processor time per operation at most.
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
    {"bunch destroy",                     NAN,  NAN},
};
// clang-format on

template <typename Value>
double Median(const std::vector<Slice> &slices, Value value)
{
    std::vector<double> values;
    for (const Slice &slice : slices)
    {
        values.push_back(value(slice));
    }
    std::ranges::sort(values);
    const size_t half = values.size() / 2;
    return (values[half] + values[(values.size() - 1) / 2]) / 2;
}

// Microseconds per operation.
double PerOperation(const std::vector<Slice> &slices, Sample Slice::*side,
                    double Sample::*part)
{
    return Median(slices,
                  [=](const Slice &slice)
                  {
                      return slice.*side.*part * 1e6 / slice.operations;
                  });
}

double Ratio(const std::vector<Slice> &slices, double Sample::*part)
{
    return Median(slices,
                  [=](const Slice &slice)
                  {
                      return slice.service.*part / slice.plain.*part;
                  });
}

Figures::Row RowOf(const Workload &workload, const std::vector<Slice> &slices)
{
    const auto us = [&](Sample Slice::*side, double Sample::*part)
    {
        return PerOperation(slices, side, part);
    };
    return {workload.name,
            {1e6 / us(&Slice::service, &Sample::elapsed),
             us(&Slice::service, &Sample::processor),
             1e6 / us(&Slice::plain, &Sample::elapsed),
             us(&Slice::plain, &Sample::processor),
             1 / Ratio(slices, &Sample::elapsed), workload.speed,
             Ratio(slices, &Sample::processor), workload.processor,
             us(&Slice::service, &Sample::events),
             us(&Slice::service, &Sample::answers)}};
}

} // namespace

Figures FiguresOf(const Slices &slices)
{
    Figures figures = {"workloads",
                       {"service/s", "us", "plain/s", "plain us", "speed",
                        ">=", "cpu", "<=", "events us", "answers us"},
                       {}};
    for (size_t i = 0; i < kWorkloadCount; ++i)
    {
        figures.rows.push_back(RowOf(kWorkloads[i], slices[i]));
    }
    return figures;
}

} // namespace qdb::bench
