// The report for people.

#include "bench/figures.h"
#include "bench/scratch.h"

#include <cstdio>
#include <thread>

namespace qdb::bench
{
namespace
{

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
    std::printf("  %5.2f %5.2f  speed %s, cpu %s\n", workload.speed,
                workload.processor, Met(speed >= workload.speed),
                Met(processor <= workload.processor));
}

void PrintWorkloads(const Report &report)
{
    std::printf("%-34s %15s %15s  %11s  %11s\n", "", "service", "plain loop",
                "to plain", "target");
    std::printf("%-34s %8s %6s %8s %6s  %5s %5s  %5s %5s\n", "", "op/s",
                "us/op", "op/s", "us/op", "speed", "cpu", "speed", "cpu");
    for (size_t i = 0; i < kWorkloadCount; ++i)
    {
        const std::vector<Slice> &slices = report.slices[i];
        std::printf("%-34s", kWorkloads[i].name);
        for (const Side side : {&Slice::service, &Slice::plain})
        {
            std::printf(" %8.0f %6.1f", PerSecond(slices, side),
                        PerOperation(slices, side, &Sample::processor));
        }
        const double speed = SpeedRatio(slices);
        const double processor = ProcessorRatio(slices);
        std::printf("  %5.2f %5.2f", speed, processor);
        PrintTarget(kWorkloads[i], speed, processor);
    }
}

void PrintUncounted(const Report &report)
{
    std::printf("\n%-34s %15s %15s\n", "not counted, us/op", "events",
                "answers");
    for (size_t i = 0; i < kWorkloadCount; ++i)
    {
        const std::vector<Slice> &slices = report.slices[i];
        std::printf("%-34s %15.1f %15.1f\n", kWorkloads[i].name,
                    PerOperation(slices, &Slice::service, &Sample::events),
                    PerOperation(slices, &Slice::service, &Sample::answers));
    }
}

void PrintSlow(const Report &report)
{
    std::printf("\n%-34s %15s %8s  %11s\n", "each call about an object takes",
                "calls/op", "op/s", "of possible");
    for (const SlowStep &step : report.slow)
    {
        char delay[64];
        std::snprintf(delay, sizeof(delay), "%.1f ms%s",
                      static_cast<double>(step.delay) / 1000,
                      step.hanging ? ", one hangs" : "");
        const double share = SlowShare(report, step);
        std::printf("%-34s %15.1f %8.0f  %11.2f",
                    (std::string(step.name) + ", " + delay).c_str(), step.calls,
                    step.perSecond, share);
        if (const double target = SlowTarget(step); target > 0)
        {
            std::printf("  at least %.2f: %s", target, Met(share >= target));
        }
        std::printf("\n");
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
    std::printf("heap above that before the database was opened: %.2f MiB when "
                "populated, %.2f MiB after %llu changes (at most %.0f: %s)\n",
                MiBAbove(populated.heap, before.heap),
                MiBAbove(report.changed.heap, before.heap),
                static_cast<unsigned long long>(report.changes), kHeapMiB,
                Met(MostHeapMiB(report) <= kHeapMiB));
    std::printf("resident: %.1f MiB before the opening with the stand-in's "
                "objects, %.1f MiB more when populated, %.1f MiB more at the "
                "end\n",
                static_cast<double>(before.resident) / kMiB,
                MiBAbove(populated.resident, before.resident),
                MiBAbove(report.changed.resident, before.resident));
}

} // namespace

void PrintTable(const Report &report, const Settings &settings)
{
    std::printf("%s\n%u objects, %u subscriber(s), medians of slices\n\n",
                settings.service.c_str(), settings.objects,
                settings.subscribers);
    PrintWorkloads(report);
    PrintUncounted(report);
    PrintSlow(report);
    PrintLatency(report);
    std::printf("idle for %.0f s: %.2f%% of one processor (at most %.1f%%: "
                "%s); answers %.2f%%, not counted\n",
                report.idle.seconds, IdlePercent(report), kIdlePercent,
                Met(IdlePercent(report) <= kIdlePercent),
                100 * report.idle.answers / report.idle.seconds);
    PrintMemory(report);
    std::printf("start: ready after %.2f s, of which 1 s is a pause\n",
                report.startUp.ready);
    std::printf("\n%u processors, load average %.2f before and %.2f after, "
                "database on %s.\nOnly the ratios mean anything, and only on a "
                "machine with nothing else to do.\n",
                std::thread::hardware_concurrency(), report.loadBefore,
                report.loadAfter, Scratch::OnTmpfs() ? "tmpfs" : "disk");
}

} // namespace qdb::bench
