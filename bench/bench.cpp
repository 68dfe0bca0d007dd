#include "bench/bench.h"

#include "bench/follow.h"
#include "bench/pair.h"
#include "bench/slow.h"
#include "tools/qdb/statistics.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <vector>

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
    unsigned idleSeconds;
    uint32_t slowObjects;
    uint32_t followedObjects;
    int followedPasses;
};
constexpr Extent kQuick = {1, 1, 1, 10, 200, 5000, 1};
constexpr Extent kWhole = {3, 4, 5, 60, 2000, 50000, 4};

// Of the last minute.
double LoadAverage()
{
    double load = 0;
    return getloadavg(&load, 1) == 1 ? load : NAN;
}

// One round of the workloads, on two sides that are new.
class Round
{
  public:
    Round(const Settings &settings, Subscribers &subscribers)
        : setSize_(std::min(settings.objects, kSetSize)),
          objects_(settings.objects), pair_(settings.service, subscribers)
    {
    }

    // All workloads, with what lies between them; the sets are gone again at
    // the end.
    void RunWorkloads(int refreshes, uint64_t changes, Slices *pSlices);

    // The service alone.
    void MeasureLatency(int runs, Figures *pFigures);
    void MeasureIdle(unsigned seconds, Figures *pFigures);
    void AddMemory(Figures *pFigures) const;

    void End()
    {
        pair_.End();
    }

  private:
    Step All(Action action, Set set) const
    {
        return {action, set, 0, setSize_, 0};
    }

    const uint32_t setSize_;
    const uint32_t objects_;
    Pair pair_;
    Memory changed_ = {}; // when the sets had gone again
    uint64_t changes_ = 0;
};

void Round::RunWorkloads(int refreshes, uint64_t changes, Slices *pSlices)
{
    uint64_t objects = objects_ + 2 * setSize_;
    const auto measure =
        [&](WorkloadIndex workload, const Step &step, int passes)
    {
        for (int i = 0; i < passes; ++i)
        {
            (*pSlices)[workload].push_back(pair_.Run(step));
        }
        pair_.CheckRows(objects);
    };
    const uint32_t bunch = std::min(setSize_, kBunchSize);
    (*pSlices)[kPopulation].push_back(pair_.Populate(objects_));
    pair_.CheckRows(objects_);
    pair_.Run(All(Action::Create, Set::OneType));
    measure(kCreate, All(Action::Create, Set::TwentyTypes), 1);
    measure(kRefreshOneType, All(Action::RefreshChanged, Set::OneType),
            refreshes);
    measure(kRefreshTwentyTypes, All(Action::RefreshChanged, Set::TwentyTypes),
            refreshes);
    measure(kRefreshSame, All(Action::RefreshSame, Set::TwentyTypes),
            refreshes);
    while (pair_.Changes() < changes)
    {
        pair_.Run(All(Action::RefreshChanged, Set::TwentyTypes));
    }
    objects -= setSize_;
    measure(kDelete, All(Action::Delete, Set::TwentyTypes), 1);
    objects -= bunch;
    measure(kDestroyBunch, {Action::DestroyBunch, Set::OneType, 0, bunch, 0},
            1);
    pair_.Run({Action::Delete, Set::OneType, bunch, setSize_ - bunch, 0});
    pair_.CheckRows(objects_);
    changed_ = pair_.service.ReadMemory();
    changes_ = pair_.Changes();
}

// What the service has counted from an event to its signal; nothing for one
// that doesn't count.
std::vector<uint64_t> CountedLatencies(const Service &service)
{
    const std::filesystem::path file =
        service.scratch.root / "var/run/quillondatabase/statistics";
    const auto statistics = tool::ReadStatistics(file.string());
    const tool::Family *family =
        statistics ? statistics->Find("event_to_signal") : nullptr;
    return family == nullptr ? std::vector<uint64_t>{}
                             : family->series.at(0).cells;
}

// The same latencies from inside, by powers of two: less than what is told from
// outside by the way there and back.
void AddCounted(const std::vector<uint64_t> &before,
                std::vector<uint64_t> after, Figures *pFigures)
{
    if (before.size() != after.size() || before.empty())
    {
        return;
    }
    std::ranges::transform(after, before, after.begin(), std::minus<>());
    const auto within = [&](double share)
    {
        constexpr double kMicrosecond = 1000;
        return static_cast<double>(tool::PercentileOf(after, share)) /
               kMicrosecond;
    };
    pFigures->rows.push_back(
        {"by its own count, within",
         {within(0.5), NAN, within(0.99), NAN, within(0.999), LoadAverage()}});
}

void Round::MeasureLatency(int runs, Figures *pFigures)
{
    pair_.Run(All(Action::Create, Set::TwentyTypes));
    const std::vector<uint64_t> before = CountedLatencies(pair_.service);
    for (int i = 0; i < runs; ++i)
    {
        std::vector<double> times;
        while (times.size() < kTimedChanges)
        {
            pair_.TimeChanges(All(Action::RefreshChanged, Set::TwentyTypes),
                              kChangesPerSecond, &times);
        }
        std::ranges::sort(times);
        pFigures->rows.push_back(
            {"run",
             {times[times.size() / 2], 250, times[times.size() * 99 / 100],
              3000, times[times.size() * 999 / 1000], LoadAverage()}});
    }
    AddCounted(before, CountedLatencies(pair_.service), pFigures);
}

void Round::MeasureIdle(unsigned seconds, Figures *pFigures)
{
    const int64_t begin = Now();
    const Usage before = pair_.service.ReadUsage();
    sleep(seconds);
    const Usage after = pair_.service.ReadUsage();
    const Sample idle = SampleOf(Now() - begin, before, after);
    pFigures->rows.push_back({"idle, % of one processor",
                              {100 * idle.processor / idle.elapsed, 2.5}});
    pFigures->rows.push_back({"answers when idle, %, not counted",
                              {100 * idle.answers / idle.elapsed, NAN}});
}

void Round::AddMemory(Figures *pFigures) const
{
    const StartUp &start = pair_.Start();
    const auto add =
        [&](const char *name, int64_t bytes, int64_t before, double target)
    {
        constexpr double kMiB = 1 << 20;
        pFigures->rows.push_back(
            {name, {static_cast<double>(bytes - before) / kMiB, target}});
    };
    const auto &[heap, resident] = start.beforeOpen;
    add("heap when populated, MiB", start.populated.heap, heap, 9);
    add("heap at the end, MiB", changed_.heap, heap, 9);
    add("resident when populated, MiB", start.populated.resident, resident,
        NAN);
    add("resident at the end, MiB", changed_.resident, resident, NAN);
    pFigures->rows.push_back(
        {"changes until the end", {static_cast<double>(changes_), NAN}});
    pFigures->rows.push_back({"start to readiness, s", {start.ready, NAN}});
}

} // namespace

std::vector<Figures> RunBench(const Settings &settings)
{
    const Extent &extent = settings.quick ? kQuick : kWhole;
    Slices slices;
    Figures latency = {"1000 changes a second, us",
                       {"p50", "<=", "p99", "<=", "p99.9", "load"},
                       {}};
    Figures rest = {"the rest",
                    {"value", "<="},
                    {{"load average before", {LoadAverage(), NAN}}}};
    const Bus bus;
    Subscribers subscribers;
    for (uint32_t i = 0; i < settings.subscribers; ++i)
    {
        subscribers.emplace_back("a subscriber", true, CountSignals);
    }
    for (int i = 1; i <= extent.rounds; ++i)
    {
        const bool isLast = i == extent.rounds;
        Round round(settings, subscribers);
        round.RunWorkloads(extent.refreshes, isLast ? settings.changes : 0,
                           &slices);
        if (isLast)
        {
            round.MeasureLatency(extent.latencyRuns, &latency);
            round.MeasureIdle(extent.idleSeconds, &rest);
            round.AddMemory(&rest);
        }
        round.End();
    }
    std::vector<Figures> all = {
        FiguresOf(slices),
        MeasureSlowPlatform(settings.service, subscribers, extent.slowObjects),
        latency, rest};
    std::ranges::copy(MeasureFollowing(settings.service, subscribers,
                                       extent.followedObjects,
                                       extent.followedPasses),
                      std::back_inserter(all));
    return all;
}

} // namespace qdb::bench
