// The report for people.

#include "bench/figures.h"
#include "bench/scratch.h"

#include <algorithm>
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

} // namespace

void PrintTable(const Report &report, const Settings &settings)
{
    std::printf("%u objects, %u subscriber(s), medians of slices\n\n",
                settings.objects, settings.subscribers);
    PrintWorkloads(report);
    PrintUncounted(report);
    PrintLatency(report);
    std::printf("idle for %.0f s: %.2f%% of one processor (at most %.1f%%: "
                "%s); the same wake-ups in an empty process %.2f%%; objects "
                "%.2f%%, not counted\n",
                report.idle.seconds, IdlePercent(report), kIdlePercent,
                Met(IdlePercent(report) <= kIdlePercent),
                100 * report.idle.wakeUps / report.idle.seconds,
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

} // namespace qdb::bench
