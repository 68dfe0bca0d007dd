#include "bench/figures.h"

#include <algorithm>
#include <functional>

namespace qdb::bench
{
namespace
{

double Median(const std::vector<Slice> &slices,
              const std::function<double(const Slice &)> &value)
{
    std::vector<double> values;
    for (const Slice &slice : slices)
    {
        values.push_back(value(slice));
    }
    std::ranges::sort(values);
    const size_t half = values.size() / 2;
    return values.size() % 2 == 1 ? values[half]
                                  : (values[half - 1] + values[half]) / 2;
}

} // namespace

double PerOperation(const std::vector<Slice> &slices, SideIndex side,
                    double Sample::*part)
{
    return Median(slices,
                  [=](const Slice &slice)
                  {
                      return slice.sides[side].*part * 1e6 / slice.operations;
                  });
}

double PerSecond(const std::vector<Slice> &slices, SideIndex side)
{
    return 1e6 / PerOperation(slices, side, &Sample::elapsed);
}

double SpeedRatio(const std::vector<Slice> &slices, SideIndex loop)
{
    return Median(slices,
                  [=](const Slice &slice)
                  {
                      return slice.sides[loop].elapsed /
                             slice.sides[kService].elapsed;
                  });
}

double ProcessorRatio(const std::vector<Slice> &slices, SideIndex loop)
{
    return Median(slices,
                  [=](const Slice &slice)
                  {
                      return slice.sides[kService].processor /
                             slice.sides[loop].processor;
                  });
}

const Latency &BestLatency(const Report &report)
{
    return *std::ranges::min_element(report.latencies, {}, &Latency::p99);
}

double IdlePercent(const Report &report)
{
    return 100 * report.idle.processor / report.idle.seconds;
}

double MiBAbove(int64_t bytes, int64_t before)
{
    return static_cast<double>(bytes - before) / kMiB;
}

} // namespace qdb::bench
