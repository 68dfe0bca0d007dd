#include "bench/report.h"

#include "bench/scratch.h"
#include "core/json.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

namespace qdb::bench
{
namespace
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

// Microseconds per operation.
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

// The service's against a loop's, slice by slice.
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

const char *Met(bool met)
{
    return met ? "met" : "missed";
}

// Both numbers of a target, and which of them are met.
void PrintTarget(const Workload &workload, double speed, double processor)
{
    if (workload.speed == 0)
    {
        std::printf("\n");
        return;
    }
    std::printf("  %5.2f %5.2f  %s\n", workload.speed, workload.processor,
                speed < workload.speed ? processor > workload.processor
                                             ? "both missed"
                                             : "speed missed"
                : processor > workload.processor ? "processor missed"
                                                 : "met");
}

void PrintWorkloads(const Report &report)
{
    std::printf("%-34s %15s %15s %15s  %11s  %11s  %11s\n", "", "service",
                "plain loop", "best loop", "to plain", "to best", "target");
    std::printf("%-34s", "");
    for (size_t i = 0; i < kSideCount; ++i)
    {
        std::printf(" %8s %6s", "op/s", "us/op");
    }
    std::printf("  %5s %5s  %5s %5s  %5s %5s\n", "speed", "cpu", "speed", "cpu",
                "speed", "cpu");
    for (size_t i = 0; i < kWorkloadCount; ++i)
    {
        const std::vector<Slice> &slices = report.slices[i];
        std::printf("%-34s", kWorkloads[i].name);
        for (const SideIndex side : {kService, kPlain, kBest})
        {
            std::printf(" %8.0f %6.1f", PerSecond(slices, side),
                        PerOperation(slices, side, &Sample::processor));
        }
        const double speed = SpeedRatio(slices, kPlain);
        const double processor = ProcessorRatio(slices, kPlain);
        std::printf("  %5.2f %5.2f  %5.2f %5.2f", speed, processor,
                    SpeedRatio(slices, kBest), ProcessorRatio(slices, kBest));
        PrintTarget(kWorkloads[i], speed, processor);
    }
}

void PrintUncounted(const Report &report)
{
    std::printf("\n%-34s %15s %15s\n", "not counted, us/op", "event thread",
                "objects");
    for (size_t i = 0; i < kWorkloadCount; ++i)
    {
        const std::vector<Slice> &slices = report.slices[i];
        std::printf("%-34s %15.1f %15.1f\n", kWorkloads[i].name,
                    PerOperation(slices, kService, &Sample::eventThread),
                    PerOperation(slices, kService, &Sample::store));
    }
}

void PrintLatency(const Report &report)
{
    const Latency &best = BestLatency(report);
    std::printf("\nlatency at 1000 changes a second, best of %zu runs: "
                "p50 %.0f us (below %.0f: %s), p99 %.0f us (below %.0f: %s), "
                "p99.9 %.0f us\n",
                report.latencies.size(), best.p50, kLatencyP50,
                Met(best.p50 < kLatencyP50), best.p99, kLatencyP99,
                Met(best.p99 < kLatencyP99), best.p999);
    for (const Latency &run : report.latencies)
    {
        std::printf("    p50 %.0f, p99 %.0f, p99.9 %.0f us, load average "
                    "%.2f\n",
                    run.p50, run.p99, run.p999, run.load);
    }
}

void PrintMemory(const Report &report)
{
    const Memory &before = report.startUp.beforeOpen;
    const Memory &populated = report.startUp.populated;
    const double heap = MiBAbove(populated.heap, before.heap);
    const double later = MiBAbove(report.changed.heap, before.heap);
    std::printf("heap above that before the database was opened: %.2f MiB when "
                "populated, %.2f MiB after %llu changes (at most %.0f: %s)\n",
                heap, later, static_cast<unsigned long long>(report.changes),
                kHeapMiB, Met(std::max(heap, later) <= kHeapMiB));
    std::printf("resident: %.1f MiB before the opening with the stand-in's "
                "objects, %.1f MiB more when populated, %.1f MiB more at the "
                "end\n",
                static_cast<double>(before.resident) / kMiB,
                MiBAbove(populated.resident, before.resident),
                MiBAbove(report.changed.resident, before.resident));
}

JsonPtr SideJson(const std::vector<Slice> &slices, SideIndex side)
{
    return JsonPtr(json_pack("{s:f, s:f}", "per_second",
                             PerSecond(slices, side), "processor_us",
                             PerOperation(slices, side, &Sample::processor)));
}

JsonPtr RatioJson(const std::vector<Slice> &slices, SideIndex loop)
{
    return JsonPtr(json_pack("{s:f, s:f}", "speed", SpeedRatio(slices, loop),
                             "processor", ProcessorRatio(slices, loop)));
}

JsonPtr WorkloadJson(const Workload &workload, const std::vector<Slice> &slices)
{
    JsonPtr json(json_pack(
        "{s:s, s:i, s:i, s:o, s:o, s:o, s:o, s:o, s:{s:f, s:f}}", "name",
        workload.name, "slices", static_cast<int>(slices.size()),
        "operations_of_a_slice", static_cast<int>(slices[0].operations),
        "service", SideJson(slices, kService).release(), "plain",
        SideJson(slices, kPlain).release(), "best",
        SideJson(slices, kBest).release(), "to_plain",
        RatioJson(slices, kPlain).release(), "to_best",
        RatioJson(slices, kBest).release(), "not_counted_us", "event_thread",
        PerOperation(slices, kService, &Sample::eventThread), "objects",
        PerOperation(slices, kService, &Sample::store)));
    if (workload.speed != 0)
    {
        json_object_set_new(
            json.get(), "target",
            json_pack("{s:f, s:f, s:b, s:b}", "speed", workload.speed,
                      "processor", workload.processor, "speed_met",
                      SpeedRatio(slices, kPlain) >= workload.speed,
                      "processor_met",
                      ProcessorRatio(slices, kPlain) <= workload.processor));
    }
    return json;
}

JsonPtr LatencyJson(const Report &report)
{
    JsonPtr runs(json_array());
    for (const Latency &run : report.latencies)
    {
        json_array_append_new(runs.get(),
                              json_pack("{s:f, s:f, s:f, s:f}", "p50_us",
                                        run.p50, "p99_us", run.p99, "p999_us",
                                        run.p999, "load", run.load));
    }
    const Latency &best = BestLatency(report);
    return JsonPtr(json_pack("{s:f, s:f, s:f, s:{s:f, s:f}, s:b, s:o}",
                             "p50_us", best.p50, "p99_us", best.p99, "p999_us",
                             best.p999, "target", "p50_us", kLatencyP50,
                             "p99_us", kLatencyP99, "met",
                             best.p50 < kLatencyP50 && best.p99 < kLatencyP99,
                             "runs", runs.release()));
}

JsonPtr MemoryJson(const Report &report)
{
    const Memory &before = report.startUp.beforeOpen;
    const Memory &populated = report.startUp.populated;
    const double heap = MiBAbove(populated.heap, before.heap);
    const double later = MiBAbove(report.changed.heap, before.heap);
    return JsonPtr(json_pack(
        "{s:f, s:f, s:I, s:f, s:b, s:f, s:f, s:f}", "heap_populated_mib", heap,
        "heap_changed_mib", later, "changes",
        static_cast<json_int_t>(report.changes), "heap_target_mib", kHeapMiB,
        "heap_met", std::max(heap, later) <= kHeapMiB,
        "resident_before_opening_mib",
        static_cast<double>(before.resident) / kMiB, "resident_populated_mib",
        MiBAbove(populated.resident, before.resident), "resident_changed_mib",
        MiBAbove(report.changed.resident, before.resident)));
}

} // namespace

double LoadAverage()
{
    double load = 0;
    return getloadavg(&load, 1) == 1 ? load : 0;
}

void PrintTable(const Report &report, const Settings &settings)
{
    std::printf("%u objects, %u subscriber(s), medians of slices\n\n",
                settings.objects, settings.subscribers);
    PrintWorkloads(report);
    PrintUncounted(report);
    PrintLatency(report);
    std::printf("idle for %.0f s: %.2f%% of one processor (at most %.1f%%: "
                "%s); objects %.2f%%, not counted\n",
                report.idle.seconds, IdlePercent(report), kIdlePercent,
                Met(IdlePercent(report) <= kIdlePercent),
                100 * report.idle.store / report.idle.seconds);
    PrintMemory(report);
    std::printf("start: ready %.2f s after the entry of main, of which %.2f s "
                "are the population and 1 s is a pause\n",
                static_cast<double>(report.startUp.ready) / 1e9,
                report.population);
    std::printf("\n%u processors, load average %.2f before and %.2f after, "
                "database on %s.\nOnly the ratios mean anything, and only on a "
                "machine with nothing else to do.\n",
                std::thread::hardware_concurrency(), report.loadBefore,
                report.loadAfter, Scratch::OnTmpfs() ? "tmpfs" : "disk");
}

void PrintJson(const Report &report, const Settings &settings)
{
    JsonPtr workloads(json_array());
    for (size_t i = 0; i < kWorkloadCount; ++i)
    {
        json_array_append_new(
            workloads.get(),
            WorkloadJson(kWorkloads[i], report.slices[i]).release());
    }
    const JsonPtr whole(json_pack(
        "{s:I, s:I, s:b, s:i, s:f, s:f, s:b, s:o, s:o, s:{s:f, s:f, s:f, s:f, "
        "s:b}, s:o, s:{s:f, s:f}}",
        "objects", static_cast<json_int_t>(settings.objects), "subscribers",
        static_cast<json_int_t>(settings.subscribers), "quick", settings.quick,
        "processors", static_cast<int>(std::thread::hardware_concurrency()),
        "load_before", report.loadBefore, "load_after", report.loadAfter,
        "tmpfs", Scratch::OnTmpfs(), "workloads", workloads.release(),
        "latency", LatencyJson(report).release(), "idle", "seconds",
        report.idle.seconds, "percent", IdlePercent(report), "objects_percent",
        100 * report.idle.store / report.idle.seconds, "target_percent",
        kIdlePercent, "met", IdlePercent(report) <= kIdlePercent, "memory",
        MemoryJson(report).release(), "start", "ready_s",
        static_cast<double>(report.startUp.ready) / 1e9, "population_s",
        report.population));
    const JsonText text(
        json_dumps(whole.get(), JSON_INDENT(2) | JSON_REAL_PRECISION(6)));
    std::printf("%s\n", text.get());
}

} // namespace qdb::bench
