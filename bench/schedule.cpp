#include "bench/schedule.h"

#include "bench/digest.h"
#include "bench/loop.h"
#include "bench/parsed_rows.h"
#include "bench/scratch.h"
#include "bench/service.h"
#include "bench/spliced_rows.h"
#include "bench/subscriber.h"
#include "tests/support/private_bus.h"

#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>

namespace qdb::bench
{
namespace
{

// Objects of a set, and of a bunch, at most.
constexpr uint32_t kSetSize = 5000;
constexpr uint32_t kBunchSize = 4000;

constexpr uint32_t kRefreshes = 20000;   // of each kind and round
constexpr uint32_t kTimedChanges = 5000; // of one run for the latency
constexpr uint32_t kFirstValue = 30000;  // of changed columns

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

// One side with the files that it works on, which outlive it.
struct Station
{
    Station(const char *name,
            const std::function<int(Channel, const Scratch &)> &body)
        : side(name,
               [&](Channel channel)
               {
                   return body(channel, scratch);
               })
    {
    }

    Scratch scratch;
    Side side;
};

double Seconds(int64_t nanoseconds)
{
    return static_cast<double>(nanoseconds) / 1e9;
}

// The three sides, each with a new database.
class Round
{
  public:
    Round(const Settings &settings, Subscribers &subscribers, Report &report);

    // All workloads, with what lies between them; the sets are gone again at
    // the end.
    void RunWorkloads(uint32_t refreshes, uint64_t changes);

    // The service alone.
    void MeasureMemory();
    void MeasureLatency(int runs);
    void MeasureIdle(int seconds);

    void Stop();

  private:
    // Prepares and runs the step on all sides.
    Slice RunOnAll(Step step);
    Sample RunOn(Side &side, const Step &step, uint64_t *pDigest);
    void Measure(WorkloadIndex workload, Step step);
    void Refresh(WorkloadIndex workload, Operation operation, Set set,
                 uint32_t refreshes);
    void ChangeService(uint64_t changes);
    void CheckRows(uint64_t objects) const;
    Cost TimeChanges(std::vector<double> *pMicroseconds);

    Station &StationOf(size_t side)
    {
        return side == kService ? service_ : side == kPlain ? plain_ : best_;
    }

    const Settings &settings_;
    Subscribers &subscribers_;
    Report &report_;
    const uint32_t setSize_;
    uint32_t value_ = kFirstValue;
    uint64_t changes_ = 0;

    Shared<EventTimes> times_;
    Station service_;
    PipeReader pipe_;
    Station plain_;
    Station best_;
};

Round::Round(const Settings &settings, Subscribers &subscribers, Report &report)
    : settings_(settings), subscribers_(subscribers), report_(report),
      setSize_(std::min(settings.objects, kSetSize)),
      service_("service",
               [this](Channel channel, const Scratch &scratch)
               {
                   return RunServiceSide(channel, scratch, &*times_);
               }),
      pipe_(service_.scratch.Pipe()),
      plain_("plain loop", RunLoopSide<ParsedRows>),
      best_("best loop", RunLoopSide<SplicedRows>)
{
}

// The service's population ends with a start-up, which has no fence.
Sample Round::RunOn(Side &side, const Step &step, uint64_t *pDigest)
{
    const bool isService = &side == &service_.side;
    const bool isStart = isService && step.operation == Operation::Populate;
    const uint64_t signals = step.count * SignalsOf(step.operation);
    side.Ask(Kind::Prepare, step);
    subscribers_.Begin();
    const Answer answer = side.Ask(Kind::Run, step);
    int64_t end = answer.cost.end;
    if (isStart)
    {
        report_.startUp = answer.startUp;
        report_.population = Seconds(end - answer.cost.begin);
    }
    else
    {
        const Received received = subscribers_.End(signals);
        *pDigest = received.digest;
        end = signals > 0 ? received.last : end;
    }
    if (isService)
    {
        pipe_.Expect(step.count);
        changes_ += signals;
    }
    return {Seconds(end - answer.cost.begin), Seconds(answer.cost.processor),
            Seconds(answer.cost.eventThread), Seconds(answer.cost.store)};
}

Slice Round::RunOnAll(Step step)
{
    step.value = ++value_;
    Slice slice = {step.count, {}};
    uint64_t digests[kSideCount] = {};
    for (size_t i = 0; i < kSideCount; ++i)
    {
        slice.sides[i] = RunOn(StationOf(i).side, step, &digests[i]);
    }
    for (const SideIndex other : {kService, kBest})
    {
        if (digests[other] != digests[kPlain])
        {
            throw std::runtime_error(StationOf(other).side.Name() +
                                     ": sent other texts than the plain loop");
        }
    }
    return slice;
}

void Round::Measure(WorkloadIndex workload, Step step)
{
    report_.slices[workload].push_back(RunOnAll(step));
}

void Round::Refresh(WorkloadIndex workload, Operation operation, Set set,
                    uint32_t refreshes)
{
    for (uint32_t done = 0; done < refreshes; done += setSize_)
    {
        Measure(workload, {operation, set, 0, setSize_, 0});
    }
}

void Round::CheckRows(uint64_t objects) const
{
    const RowsDigest service = DigestRows(service_.scratch.Database());
    if (service.objects != objects || service.mapped != objects)
    {
        throw std::runtime_error(std::to_string(service.objects) +
                                 " rows and " + std::to_string(service.mapped) +
                                 " mappings instead of " +
                                 std::to_string(objects));
    }
    if (DigestRows(plain_.scratch.Database()) != service ||
        DigestRows(best_.scratch.Database()) != service)
    {
        throw std::runtime_error("the sides wrote different rows");
    }
}

// Refreshes on the service alone until it has sent that many signals.
void Round::ChangeService(uint64_t changes)
{
    while (changes_ < changes)
    {
        uint64_t digest = 0;
        RunOn(service_.side,
              {Operation::RefreshChanged, Set::TwentyTypes, 0, setSize_,
               ++value_},
              &digest);
    }
}

void Round::RunWorkloads(uint32_t refreshes, uint64_t changes)
{
    const uint32_t bunch = std::min(setSize_, kBunchSize);
    const uint32_t objects = settings_.objects;
    Measure(kPopulation, {Operation::Populate, Set::Population, 0, objects, 0});
    CheckRows(objects);
    RunOnAll({Operation::Create, Set::OneType, 0, setSize_, 0});
    Measure(kCreate, {Operation::Create, Set::TwentyTypes, 0, setSize_, 0});
    Refresh(kRefreshOneType, Operation::RefreshChanged, Set::OneType,
            refreshes);
    Refresh(kRefreshTwentyTypes, Operation::RefreshChanged, Set::TwentyTypes,
            refreshes);
    Refresh(kRefreshSame, Operation::RefreshSame, Set::TwentyTypes, refreshes);
    CheckRows(objects + 2 * setSize_);
    ChangeService(changes);
    Measure(kDelete, {Operation::Delete, Set::TwentyTypes, 0, setSize_, 0});
    Measure(kDestroyBunch,
            {Operation::DestroyBunch, Set::OneType, 0, bunch, 0});
    RunOnAll({Operation::Delete, Set::OneType, bunch, setSize_ - bunch, 0});
    CheckRows(objects);
}

void Round::MeasureMemory()
{
    report_.changed = service_.side.Ask(Kind::Memory).memory;
    report_.changes = changes_;
}

// One pass over the set. Events and signals of one object keep their order.
Cost Round::TimeChanges(std::vector<double> *pMicroseconds)
{
    const Step step = {Operation::RefreshChanged, Set::TwentyTypes, 0, setSize_,
                       ++value_};
    subscribers_.Begin(true);
    const Cost cost = service_.side.Ask(Kind::Changes, step).cost;
    subscribers_.End(step.count);
    const std::vector<uint32_t> oids = OidsOf(step);
    std::map<uint32_t, int64_t> begin;
    for (size_t i = 0; i < oids.size(); ++i)
    {
        begin[oids[i]] = times_->times[i];
    }
    for (const Arrival &arrival : subscribers_.Arrivals())
    {
        pMicroseconds->push_back(
            static_cast<double>(arrival.time - begin.at(arrival.oid)) / 1e3);
    }
    return cost;
}

// With the NC thread at work.
void Round::MeasureLatency(int runs)
{
    uint64_t digest = 0;
    RunOn(service_.side,
          {Operation::Create, Set::TwentyTypes, 0, setSize_, ++value_},
          &digest);
    subscribers_.Begin();
    service_.side.Ask(Kind::Reconcile);
    subscribers_.End(0);
    for (int i = 0; i < runs; ++i)
    {
        std::vector<double> times;
        while (times.size() < kTimedChanges)
        {
            TimeChanges(&times);
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
    const Cost cost = service_.side.Ask(Kind::Idle, {}, seconds).cost;
    report_.idle = {Seconds(cost.end - cost.begin), Seconds(cost.processor),
                    Seconds(cost.store)};
}

void Round::Stop()
{
    service_.side.Stop();
    plain_.side.Stop();
    best_.side.Stop();
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
