#include "bench/bench.h"

#include "bench/pair.h"

#include <unistd.h>

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

// The slow platform. Each of the calls would be answered by another process.
constexpr const char *kObjectCalls[] = {
    "ZOILDOGetObjKeyUTF8",    "ZOILGetObjByKey",   "ZOILGetObjByOID",
    "ZOILListChildOIDByType", "ZOILListParentOID",
};
constexpr int kDelays[] = {0, 200, 1000, 5000}; // microseconds
constexpr Action kSlowActions[kSlowCount] = {
    Action::Create, Action::RefreshChanged, Action::Delete};
constexpr uint32_t kSlowPopulation = 500;
constexpr char kHangingCall[] = "ZOILGetObjByOID";

// An object beside the sets. Its event tells of a change although there is
// none, so that the end of it sends no signal.
constexpr Step kHangingCreate = {Action::Create, Set::OneType, 0, 1, 0};
constexpr Step kHangingRefresh = {Action::RefreshSame, Set::OneType, 0, 1, 0};

// How much is measured.
struct Extent
{
    int rounds;
    int refreshes; // passes over a set, of each kind and round
    int latencyRuns;
    unsigned idleSeconds;
    uint32_t slowObjects;
};
constexpr Extent kQuick = {1, 1, 1, 10, 200};
constexpr Extent kWhole = {3, 4, 5, 60, 2000};

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
        : setSize_(std::min(settings.objects, kSetSize)),
          objects_(settings.objects), report_(report),
          pair_(settings.service, subscribers)
    {
    }

    // All workloads, with what lies between them; the sets are gone again at
    // the end.
    void RunWorkloads(int refreshes, uint64_t changes);

    // The service alone.
    void MeasureLatency(int runs);
    void MeasureIdle(unsigned seconds);

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
    const uint32_t objects_;
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
    const uint64_t most = objects_ + 2 * setSize_;
    report_.slices[kPopulation].push_back(
        pair_.Populate(objects_, &report_.startUp));
    pair_.CheckRows(objects_);
    pair_.Run(All(Action::Create, Set::OneType));
    Measure(kCreate, All(Action::Create, Set::TwentyTypes), most);
    Measure(kRefreshOneType, All(Action::RefreshChanged, Set::OneType), most,
            refreshes);
    Measure(kRefreshTwentyTypes, All(Action::RefreshChanged, Set::TwentyTypes),
            most, refreshes);
    Measure(kRefreshSame, All(Action::RefreshSame, Set::TwentyTypes), most,
            refreshes);
    Change(changes);
    Measure(kDelete, All(Action::Delete, Set::TwentyTypes), most - setSize_);
    Measure(kDestroyBunch, {Action::DestroyBunch, Set::OneType, 0, bunch, 0},
            most - setSize_ - bunch);
    pair_.Run({Action::Delete, Set::OneType, bunch, setSize_ - bunch, 0});
    pair_.CheckRows(objects_);
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

void Round::MeasureIdle(unsigned seconds)
{
    const int64_t begin = Now();
    const Usage before = pair_.service.ReadUsage();
    sleep(seconds);
    const Usage after = pair_.service.ReadUsage();
    report_.idle = SampleOf(Now() - begin, before, after);
}

uint64_t ObjectCalls(Service &service)
{
    uint64_t calls = 0;
    for (const char *call : kObjectCalls)
    {
        const Json reply =
            service.Ask(json_pack("{s:s, s:s}", "op", "calls", "call", call));
        calls += NumberOf(reply.get(), "count");
    }
    return calls;
}

SlowRun RunSlowly(Pair &pair, uint32_t objects, int delay, bool hanging)
{
    for (const char *call : kObjectCalls)
    {
        pair.service.Ask(json_pack("{s:s, s:s, s:i}", "op", "delay", "call",
                                   call, "microseconds", delay));
    }
    SlowRun run = {delay, hanging, {}, {}};
    for (size_t i = 0; i < kSlowCount; ++i)
    {
        const uint64_t before = ObjectCalls(pair.service);
        const Slice slice =
            pair.Run({kSlowActions[i], Set::TwentyTypes, 0, objects, 0});
        run.perSecond[i] = objects / slice.service.elapsed;
        run.calls[i] =
            static_cast<double>(ObjectCalls(pair.service) - before) / objects;
        const bool isGone = kSlowActions[i] == Action::Delete;
        pair.CheckRows(kSlowPopulation + 1 + (isGone ? 0 : objects));
    }
    return run;
}

void HangOneCall(Service &service)
{
    const json_int_t oid = OidsOf(kHangingRefresh).front();
    service.Ask(json_pack("{s:s, s:s, s:s, s:I}", "op", "delay", "call",
                          kHangingCall, "microseconds", "hang", "oid", oid));
    service.Ask(AnnouncementOf(kHangingRefresh, 0));
    service.AwaitHanging(kHangingCall);
}

std::vector<SlowRun> MeasureSlowPlatform(const std::string &program,
                                         Subscribers &subscribers,
                                         uint32_t objects)
{
    std::vector<SlowRun> runs;
    Pair pair(program, subscribers);
    StartUp ignored = {};
    pair.Populate(kSlowPopulation, &ignored);
    pair.Run(kHangingCreate);
    for (const bool hanging : {false, true})
    {
        if (hanging)
        {
            HangOneCall(pair.service);
        }
        for (const int delay : kDelays)
        {
            runs.push_back(RunSlowly(pair, objects, delay, hanging));
        }
    }
    pair.service.Ask(json_pack("{s:s}", "op", "release"));
    pair.End();
    return runs;
}

} // namespace

Report RunBench(const Settings &settings)
{
    const Extent &extent = settings.quick ? kQuick : kWhole;
    Report report = {};
    report.loadBefore = LoadAverage();
    const Bus bus;
    Subscribers subscribers;
    for (uint32_t i = 0; i < settings.subscribers; ++i)
    {
        subscribers.emplace_back("a subscriber", true, CountSignals);
    }
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
    report.slow =
        MeasureSlowPlatform(settings.service, subscribers, extent.slowObjects);
    report.loadAfter = LoadAverage();
    return report;
}

} // namespace qdb::bench
