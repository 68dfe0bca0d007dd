#include "bench/figures.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace qdb::bench
{
namespace
{

constexpr double kWorkers = 10;

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

// The same step without a delay and without a hanging call.
const SlowStep &Undelayed(const Report &report, const SlowStep &step)
{
    return *std::ranges::find_if(
        report.slow,
        [&](const SlowStep &other)
        {
            return other.delay == 0 && !other.hanging &&
                   std::strcmp(other.name, step.name) == 0;
        });
}

} // namespace

double PerOperation(const std::vector<Slice> &slices, Side side,
                    double Sample::*part)
{
    return Median(slices,
                  [=](const Slice &slice)
                  {
                      return slice.*side.*part * 1e6 / slice.operations;
                  });
}

double PerSecond(const std::vector<Slice> &slices, Side side)
{
    return 1e6 / PerOperation(slices, side, &Sample::elapsed);
}

double SpeedRatio(const std::vector<Slice> &slices)
{
    return Median(slices,
                  [](const Slice &slice)
                  {
                      return slice.plain.elapsed / slice.service.elapsed;
                  });
}

double ProcessorRatio(const std::vector<Slice> &slices)
{
    return Median(slices,
                  [](const Slice &slice)
                  {
                      return slice.service.processor / slice.plain.processor;
                  });
}

double SlowShare(const Report &report, const SlowStep &step)
{
    const SlowStep &undelayed = Undelayed(report, step);
    const double waiting = undelayed.calls * step.delay / 1e6;
    const double possible =
        waiting == 0 ? undelayed.perSecond
                     : std::min(undelayed.perSecond, kWorkers / waiting);
    return step.perSecond / possible;
}

double SlowTarget(const SlowStep &step)
{
    const bool isDelete = std::strcmp(step.name, "delete") == 0;
    return isDelete             ? 0
           : step.delay == 200  ? 0.6
           : step.delay == 1000 ? 0.5
           : step.delay == 5000 ? 0.85
                                : 0;
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

double MostHeapMiB(const Report &report)
{
    return MiBAbove(
        std::max(report.startUp.populated.heap, report.changed.heap),
        report.startUp.beforeOpen.heap);
}

} // namespace qdb::bench
