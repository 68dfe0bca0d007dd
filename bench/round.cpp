#include "bench/round.h"

#include "bench/digest.h"
#include "bench/loop.h"
#include "bench/parsed_rows.h"
#include "bench/spliced_rows.h"
#include "bench/wakeups.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>

namespace qdb::bench
{
namespace
{

constexpr uint32_t kBunchSize = 4000;    // at most
constexpr uint32_t kTimedChanges = 5000; // of one run for the latency
constexpr uint32_t kFirstValue = 30000;  // of changed columns

void CheckWork(const std::string &name, const Work &work, const Work &plain)
{
    if (work.signals != plain.signals)
    {
        throw std::runtime_error(name +
                                 ": sent other texts than the plain loop");
    }
    if (work.rowsWritten != plain.rowsWritten)
    {
        throw std::runtime_error(
            name + ": wrote " + std::to_string(work.rowsWritten) +
            " rows, the plain loop " + std::to_string(plain.rowsWritten));
    }
}

double Seconds(int64_t nanoseconds)
{
    return static_cast<double>(nanoseconds) / 1e9;
}

} // namespace

double LoadAverage()
{
    double load = 0;
    return getloadavg(&load, 1) == 1 ? load : 0;
}

Round::Round(const Settings &settings, Subscribers &subscribers, Report &report)
    : settings_(settings), subscribers_(subscribers), report_(report),
      setSize_(std::min(settings.objects, kSetSize)), value_(kFirstValue),
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
Sample Round::RunOn(Side &side, const Step &step, Work *pWork)
{
    const bool isService = &side == &service_.side;
    const bool isStart = isService && step.operation == Operation::Populate;
    const uint64_t signals = step.count * SignalsOf(step.operation);
    side.Ask(Kind::Prepare, step);
    subscribers_.Begin();
    const Answer answer = side.Ask(Kind::Run, step);
    int64_t end = answer.cost.end;
    Work work = {0, answer.cost.rowsWritten};
    if (isStart)
    {
        report_.startUp = answer.startUp;
        report_.population = Seconds(end - answer.cost.begin);
    }
    else
    {
        const Received received = subscribers_.End(signals, side.Name());
        work.signals = received.digest;
        end = signals > 0 ? received.last : end;
    }
    if (isService)
    {
        pipe_.Expect(step.count);
        changes_ += signals;
    }
    if (pWork != nullptr)
    {
        *pWork = work;
    }
    // One thread walks and asks for the objects.
    const int64_t store = isStart ? answer.cost.store : 0;
    return {Seconds(end - answer.cost.begin - store),
            Seconds(answer.cost.processor), Seconds(answer.cost.eventThread),
            Seconds(answer.cost.store)};
}

Slice Round::RunOnAll(Step step)
{
    step.value = ++value_;
    Slice slice = {step.count, {}};
    Work works[kSideCount] = {};
    for (size_t i = 0; i < kSideCount; ++i)
    {
        slice.sides[i] = RunOn(StationOf(i).side, step, &works[i]);
    }
    for (const SideIndex other : {kService, kBest})
    {
        CheckWork(StationOf(other).side.Name(), works[other], works[kPlain]);
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

// Refreshes on the service alone until it has sent that many signals. The loops
// only end with the same rows.
void Round::ChangeService(uint64_t changes)
{
    if (changes_ >= changes)
    {
        return;
    }
    while (changes_ < changes)
    {
        RunOn(service_.side, {Operation::RefreshChanged, Set::TwentyTypes, 0,
                              setSize_, ++value_});
    }
    const Step last = {Operation::RefreshChanged, Set::TwentyTypes, 0, setSize_,
                       value_};
    RunOn(plain_.side, last);
    RunOn(best_.side, last);
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
    subscribers_.End(step.count, service_.side.Name());
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
    RunOn(service_.side,
          {Operation::Create, Set::TwentyTypes, 0, setSize_, ++value_});
    subscribers_.Begin();
    service_.side.Ask(Kind::Reconcile);
    subscribers_.End(0, service_.side.Name());
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
    WakeUps wakeUps(seconds);
    const Cost cost = service_.side.Ask(Kind::Idle, {}, seconds).cost;
    report_.idle = {Seconds(cost.end - cost.begin), Seconds(cost.processor),
                    Seconds(cost.store), wakeUps.Processor()};
}

void Round::Stop()
{
    service_.side.Stop();
    plain_.side.Stop();
    best_.side.Stop();
}

} // namespace qdb::bench
