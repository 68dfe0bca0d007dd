// The report for programs.

#include "bench/figures.h"
#include "bench/scratch.h"
#include "core/json.h"

#include <algorithm>
#include <cstdio>
#include <thread>

namespace qdb::bench
{
namespace
{

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
        "s:f, s:b}, s:o, s:{s:f, s:f}}",
        "objects", static_cast<json_int_t>(settings.objects), "subscribers",
        static_cast<json_int_t>(settings.subscribers), "quick", settings.quick,
        "processors", static_cast<int>(std::thread::hardware_concurrency()),
        "load_before", report.loadBefore, "load_after", report.loadAfter,
        "tmpfs", Scratch::OnTmpfs(), "workloads", workloads.release(),
        "latency", LatencyJson(report).release(), "idle", "seconds",
        report.idle.seconds, "percent", IdlePercent(report), "objects_percent",
        100 * report.idle.store / report.idle.seconds, "wakeups_percent",
        100 * report.idle.wakeUps / report.idle.seconds, "target_percent",
        kIdlePercent, "met", IdlePercent(report) <= kIdlePercent, "memory",
        MemoryJson(report).release(), "start", "ready_s",
        static_cast<double>(report.startUp.ready) / 1e9, "population_s",
        report.population));
    const JsonText text(
        json_dumps(whole.get(), JSON_INDENT(2) | JSON_REAL_PRECISION(6)));
    std::printf("%s\n", text.get());
}

} // namespace qdb::bench
