#include "bench/pair.h"

#include "bench/rows.h"
#include "bench/wait.h"
#include "platform/standin/events.h"

#include <map>

namespace qdb::bench
{
namespace
{

constexpr char kService[] = "the service";
constexpr uint32_t kFirstValue = 30000; // of changed columns

double Seconds(int64_t nanoseconds)
{
    return static_cast<double>(nanoseconds) / 1e9;
}

Events EventsOf(const Step &step)
{
    const std::vector<uint32_t> oids = OidsOf(step);
    switch (step.action)
    {
    case Action::Populate:
    case Action::Create:
        return {standin::kCreate, oids, false};
    case Action::RefreshChanged:
    case Action::RefreshSame:
        return {standin::kDirtyList, oids, false};
    case Action::Delete:
    case Action::DestroyBunch:
        break;
    }
    return {standin::kDestroy, oids, step.action == Action::DestroyBunch};
}

Sample SampleOf(int64_t elapsed, const Usage &before, const Usage &after)
{
    return {Seconds(elapsed), Seconds(after.service - before.service),
            Seconds(after.events - before.events),
            Seconds(after.answers - before.answers)};
}

} // namespace

Pair::Pair(const std::string &program, Subscribers &subscribers)
    : service(program), subscribers_(subscribers),
      pipe_(service.Files().Pipe(), TablesOfSets()), value_(kFirstValue)
{
}

// One thread walks and asks for the objects, so that what the answers cost is
// taken from its clock, too.
Slice Pair::Populate(uint32_t objects, StartUp *pStartUp)
{
    const Step step = {Action::Populate, Set::Population, 0, objects, 0};
    const Json operations = OperationsFor(step);
    service.Execute(operations);
    pStartUp->beforeOpen = service.ReadMemory();
    const Usage before = service.ReadUsage();
    const int64_t begin = Now();
    service.Go();
    const int64_t end = pipe_.ExpectAny(objects);
    const Usage after = service.ReadUsage();
    service.AwaitReady();
    pStartUp->ready = service.StartSeconds() + Seconds(Now() - begin);
    pStartUp->populated = service.ReadMemory();
    Slice slice = {};
    slice.operations = objects;
    slice.service =
        SampleOf(end - begin - (after.answers - before.answers), before, after);
    slice.plain = RunLoop(step, operations);
    return slice;
}

Slice Pair::Run(Step step)
{
    step.value = ++value_;
    const Json operations = OperationsFor(step);
    return {step.count, RunService(step, operations),
            RunLoop(step, operations)};
}

Sample Pair::RunService(Step step)
{
    step.value = ++value_;
    return RunService(step, OperationsFor(step));
}

Sample Pair::RunService(const Step &step, const Json &operations)
{
    const uint64_t signals = step.count * SignalsOf(step.action);
    const Events events = EventsOf(step);
    service.Execute(operations);
    subscribers_.Begin();
    const Usage before = service.ReadUsage();
    const int64_t begin = service.Announce(events);
    const int64_t announced = subscribers_.End(signals, kService);
    const int64_t written = pipe_.Expect(step.count);
    const Usage after = service.ReadUsage();
    changes_ += signals;
    return SampleOf((signals > 0 ? announced : written) - begin, before, after);
}

Sample Pair::RunLoop(const Step &step, const Json &operations)
{
    const uint64_t signals = step.count * SignalsOf(step.action);
    loop_.Prepare(step, operations);
    subscribers_.Begin();
    const LoopCost cost = loop_.Run(step);
    const int64_t announced = subscribers_.End(signals, "the plain loop");
    return {Seconds((signals > 0 ? announced : cost.end) - cost.begin),
            Seconds(cost.processor), 0, 0};
}

void Pair::TimeChanges(Step step, int perSecond, std::vector<double> *pTimes)
{
    step.value = ++value_;
    const Events events = EventsOf(step);
    service.Execute(OperationsFor(step));
    subscribers_.Begin(true);
    const std::vector<int64_t> times =
        service.AnnounceAtRate(events, perSecond);
    subscribers_.End(step.count, kService);
    pipe_.Expect(step.count);
    std::map<uint32_t, int64_t> begin;
    for (size_t i = 0; i < times.size(); ++i)
    {
        begin[events.oids[i]] = times[i];
    }
    for (const Arrival &arrival : subscribers_.Arrivals())
    {
        pTimes->push_back(
            static_cast<double>(arrival.time - begin.at(arrival.oid)) / 1e3);
    }
}

void Pair::CheckRows(uint64_t objects) const
{
    CheckSameRows(service.Files().Database(), loop_.Files().Database(),
                  objects);
}

} // namespace qdb::bench
