#include "bench/schedule.h"

#include "bench/round.h"
#include "tests/support/private_bus.h"

namespace qdb::bench
{
namespace
{

constexpr uint32_t kRefreshes = 20000; // of each kind and round

struct Extent
{
    int rounds;
    uint32_t refreshes;
    int latencyRuns;
    int idleSeconds;
};

Extent ExtentOf(const Settings &settings)
{
    return settings.quick ? Extent{1, kSetSize, 1, 10}
                          : Extent{3, kRefreshes, 5, 60};
}

} // namespace

Report RunBench(const Settings &settings)
{
    const Extent extent = ExtentOf(settings);
    Report report = {};
    report.loadBefore = LoadAverage();
    const test::PrivateBus bus;
    Subscribers subscribers(settings.subscribers);
    for (int i = 1; i <= extent.rounds; ++i)
    {
        const bool isLast = i == extent.rounds;
        Round round(settings, subscribers, report);
        round.RunWorkloads(extent.refreshes, isLast ? settings.changes : 0);
        if (isLast)
        {
            round.MeasureMemory();
            round.MeasureLatency(extent.latencyRuns);
            round.MeasureIdle(extent.idleSeconds);
        }
        round.Stop();
    }
    report.loadAfter = LoadAverage();
    return report;
}

} // namespace qdb::bench
