#include "bench/round.h"

#include "bench/bus.h"
#include "bench/pair.h"
#include "bench/slow.h"
#include "bench/wait.h"

#include <algorithm>
#include <cstdlib>

namespace qdb::bench
{
namespace
{

constexpr uint32_t kSetSize = 5000;      // at most
constexpr uint32_t kBunchSize = 4000;    // at most
constexpr uint32_t kTimedChanges = 5000; // of one run for the latency
constexpr int kChangesPerSecond = 1000;

// How much is measured.
struct Extent
{
    int rounds;
    int refreshes; // passes over a set, of each kind and round
    int latencyRuns;
    int idleSeconds;
    uint32_t slowObjects;
};

Extent ExtentOf(const Settings &settings)
{
    return settings.quick ? Extent{1, 1, 1, 10, 200}
                          : Extent{3, 4, 5, 60, 2000};
}

double LoadAverage()
{
    double load = 0;
    return getloadavg(&load, 1) == 1 ? load : 0;
}

// One round of the workloads, on two sides that are new.
class Round
{
  public:
    Round(const Settings &settings, Subscribers &subscribers, Report &report)
        : setSize_(std::min(settings.objects, kSetSize)), settings_(settings),
          report_(report), pair_(settings.service, subscribers)
    {
    }

    // All workloads, with what lies between them; the sets are gone again at
    // the end.
    void RunWorkloads(int refreshes, uint64_t changes);

    // The service alone.
    void MeasureLatency(int runs);
    void MeasureIdle(int seconds);

    void End()
    {
        pair_.End();
    }

  private:
    Step All(Action action, Set set) const
    {
        return {action, set, 0, setSize_, 0};
    }
    void Measure(WorkloadIndex workload, const Step &step, uint64_t objects,
                 int passes = 1);
    void Change(uint64_t changes);

    const uint32_t setSize_;
    const Settings &settings_;
    Report &report_;
    Pair pair_;
};

// That many objects have a row afterwards.
void Round::Measure(WorkloadIndex workload, const Step &step, uint64_t objects,
                    int passes)
{
    for (int i = 0; i < passes; ++i)
    {
        report_.slices[workload].push_back(pair_.Run(step));
    }
    pair_.CheckRows(objects);
}

// Refreshes on the service alone until it has sent that many signals. The loop
// only ends with the same rows.
void Round::Change(uint64_t changes)
{
    const Step step = All(Action::RefreshChanged, Set::TwentyTypes);
    while (pair_.Changes() + setSize_ < changes)
    {
        pair_.RunService(step);
    }
    if (pair_.Changes() < changes)
    {
        pair_.Run(step);
    }
}

void Round::RunWorkloads(int refreshes, uint64_t changes)
{
    const uint32_t bunch = std::min(setSize_, kBunchSize);
    const uint64_t objects = settings_.objects;
    const uint64_t most = objects + 2 * setSize_;
    report_.slices[kPopulation].push_back(
        pair_.Populate(settings_.objects, &report_.startUp));
    pair_.CheckRows(objects);
    pair_.Run(All(Action::Create, Set::OneType));
    Measure(kCreate, All(Action::Create, Set::TwentyTypes), most);
    Measure(kRefreshOneType, All(Action::RefreshChanged, Set::OneType), most,
            refreshes);
    Measure(kRefreshTwentyTypes, All(Action::RefreshChanged, Set::TwentyTypes),
            most, refreshes);
    Measure(kRefreshSame, All(Action::RefreshSame, Set::TwentyTypes), most,
            refreshes);
    Change(changes);
    Measure(kDelete, All(Action::Delete, Set::TwentyTypes), objects + setSize_);
    Measure(kDestroyBunch, {Action::DestroyBunch, Set::OneType, 0, bunch, 0},
            objects + setSize_ - bunch);
    pair_.Run({Action::Delete, Set::OneType, bunch, setSize_ - bunch, 0});
    pair_.CheckRows(objects);
    report_.changed = pair_.service.ReadMemory();
    report_.changes = pair_.Changes();
}

void Round::MeasureLatency(int runs)
{
    pair_.Run(All(Action::Create, Set::TwentyTypes));
    for (int i = 0; i < runs; ++i)
    {
        std::vector<double> times;
        while (times.size() < kTimedChanges)
        {
            pair_.TimeChanges(All(Action::RefreshChanged, Set::TwentyTypes),
                              kChangesPerSecond, &times);
        }
        std::ranges::sort(times);
        const auto percentile = [&](double part)
        {
            return times[static_cast<size_t>(
                part * static_cast<double>(times.size() - 1))];
        };
        report_.latencies.push_back({percentile(0.5), percentile(0.99),
                                     percentile(0.999), LoadAverage()});
    }
}

void Round::MeasureIdle(int seconds)
{
    const int64_t begin = Now();
    const Usage before = pair_.service.ReadUsage();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const Usage after = pair_.service.ReadUsage();
    report_.idle = {static_cast<double>(Now() - begin) / 1e9,
                    static_cast<double>(after.service - before.service) / 1e9,
                    static_cast<double>(after.answers - before.answers) / 1e9};
}

} // namespace

Report RunBench(const Settings &settings)
{
    const Extent extent = ExtentOf(settings);
    Report report = {};
    report.loadBefore = LoadAverage();
    const Bus bus;
    Subscribers subscribers(settings.subscribers);
    for (int i = 1; i <= extent.rounds; ++i)
    {
        const bool isLast = i == extent.rounds;
        Round round(settings, subscribers, report);
        round.RunWorkloads(extent.refreshes, isLast ? settings.changes : 0);
        if (isLast)
        {
            round.MeasureLatency(extent.latencyRuns);
            round.MeasureIdle(extent.idleSeconds);
        }
        round.End();
    }
    report.slow = RunSlow(settings.service, subscribers, extent.slowObjects);
    report.loadAfter = LoadAverage();
    return report;
}

} // namespace qdb::bench
