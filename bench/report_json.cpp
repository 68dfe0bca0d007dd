// The report for programs.

#include "bench/figures.h"
#include "bench/scratch.h"
#include "core/json.h"

#include <cstdio>
#include <thread>

namespace qdb::bench
{
namespace
{

json_t *SideJson(const std::vector<Slice> &slices, Side side)
{
    return json_pack("{s:f, s:f}", "per_second", PerSecond(slices, side),
                     "processor_us",
                     PerOperation(slices, side, &Sample::processor));
}

json_t *WorkloadJson(const Workload &workload, const std::vector<Slice> &slices)
{
    const double speed = SpeedRatio(slices);
    const double processor = ProcessorRatio(slices);
    json_t *json = json_pack(
        "{s:s, s:i, s:i, s:o, s:o, s:{s:f, s:f}, s:{s:f, s:f}}", "name",
        workload.name, "slices", static_cast<int>(slices.size()),
        "operations_of_a_slice", static_cast<int>(slices[0].operations),
        "service", SideJson(slices, &Slice::service), "plain",
        SideJson(slices, &Slice::plain), "to_plain", "speed", speed,
        "processor", processor, "not_counted_us", "events",
        PerOperation(slices, &Slice::service, &Sample::events), "answers",
        PerOperation(slices, &Slice::service, &Sample::answers));
    if (workload.speed != 0)
    {
        json_object_set_new(json, "target",
                            json_pack("{s:f, s:f, s:b, s:b}", "speed",
                                      workload.speed, "processor",
                                      workload.processor, "speed_met",
                                      speed >= workload.speed, "processor_met",
                                      processor <= workload.processor));
    }
    return json;
}

json_t *WorkloadsJson(const Report &report)
{
    json_t *workloads = json_array();
    for (size_t i = 0; i < kWorkloadCount; ++i)
    {
        json_array_append_new(workloads,
                              WorkloadJson(kWorkloads[i], report.slices[i]));
    }
    return workloads;
}

json_t *SlowJson(const Report &report)
{
    json_t *steps = json_array();
    for (const SlowStep &step : report.slow)
    {
        json_array_append_new(
            steps,
            json_pack("{s:s, s:i, s:b, s:f, s:f, s:f, s:f}", "name", step.name,
                      "delay_us", step.delay, "hanging", step.hanging,
                      "per_second", step.perSecond, "calls", step.calls,
                      "share", SlowShare(report, step), "target",
                      SlowTarget(step)));
    }
    return steps;
}

json_t *RunJson(const Latency &run)
{
    return json_pack("{s:f, s:f, s:f, s:f}", "p50_us", run.p50, "p99_us",
                     run.p99, "p999_us", run.p999, "load", run.load);
}

json_t *LatencyJson(const Report &report)
{
    json_t *runs = json_array();
    for (const Latency &run : report.latencies)
    {
        json_array_append_new(runs, RunJson(run));
    }
    const Latency &best = BestLatency(report);
    return json_pack("{s:o, s:{s:f, s:f}, s:b, s:o}", "best", RunJson(best),
                     "target", "p50_us", kLatencyP50, "p99_us", kLatencyP99,
                     "met", best.p50 < kLatencyP50 && best.p99 < kLatencyP99,
                     "runs", runs);
}

json_t *MemoryJson(const Report &report)
{
    const Memory &before = report.startUp.beforeOpen;
    const Memory &populated = report.startUp.populated;
    return json_pack(
        "{s:f, s:f, s:I, s:f, s:b, s:f, s:f, s:f}", "heap_populated_mib",
        MiBAbove(populated.heap, before.heap), "heap_changed_mib",
        MiBAbove(report.changed.heap, before.heap), "changes",
        static_cast<json_int_t>(report.changes), "heap_target_mib", kHeapMiB,
        "heap_met", MostHeapMiB(report) <= kHeapMiB,
        "resident_before_opening_mib",
        static_cast<double>(before.resident) / kMiB, "resident_populated_mib",
        MiBAbove(populated.resident, before.resident), "resident_changed_mib",
        MiBAbove(report.changed.resident, before.resident));
}

json_t *IdleJson(const Report &report)
{
    return json_pack(
        "{s:f, s:f, s:f, s:f, s:b}", "seconds", report.idle.seconds, "percent",
        IdlePercent(report), "answers_percent",
        100 * report.idle.answers / report.idle.seconds, "target_percent",
        kIdlePercent, "met", IdlePercent(report) <= kIdlePercent);
}

} // namespace

void PrintJson(const Report &report, const Settings &settings)
{
    const JsonPtr whole(json_pack(
        "{s:s, s:I, s:I, s:b, s:i, s:f, s:f, s:b, s:o, s:o, s:o, s:o, s:o, "
        "s:f}",
        "service", settings.service.c_str(), "objects",
        static_cast<json_int_t>(settings.objects), "subscribers",
        static_cast<json_int_t>(settings.subscribers), "quick", settings.quick,
        "processors", static_cast<int>(std::thread::hardware_concurrency()),
        "load_before", report.loadBefore, "load_after", report.loadAfter,
        "tmpfs", Scratch::OnTmpfs(), "workloads", WorkloadsJson(report), "slow",
        SlowJson(report), "latency", LatencyJson(report), "idle",
        IdleJson(report), "memory", MemoryJson(report), "ready_s",
        report.startUp.ready));
    const JsonText text(
        json_dumps(whole.get(), JSON_INDENT(2) | JSON_REAL_PRECISION(6)));
    std::printf("%s\n", text.get());
}

} // namespace qdb::bench
