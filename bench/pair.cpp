#include "bench/pair.h"

#include "bench/compare.h"

#include <algorithm>
#include <map>

namespace qdb::bench
{

Sample SampleOf(int64_t elapsed, const Usage &before, const Usage &after)
{
    return {Seconds(elapsed), Seconds(after.service - before.service),
            Seconds(after.events - before.events),
            Seconds(after.answers - before.answers)};
}

Pair::Pair(const std::string &program, Subscribers &subscribers)
    : service(program), subscribers_(subscribers),
      pipe_("the telemetry pipe", false,
            [this](Tally &tally)
            {
                return CountRecords(tally, service.scratch.pipe);
            })
{
}

// One thread of the service walks and asks for the objects, so that what the
// answers cost is taken from its clock, too.
Slice Pair::Populate(uint32_t objects)
{
    const Step step = {Action::Populate, Set::Population, 0, objects, 0};
    const Json operations = OperationsFor(step);
    const int64_t held = Now();
    service.Execute(operations);
    start_.beforeOpen = service.ReadMemory();
    const Usage before = service.ReadUsage();
    const int64_t begin = Now();
    service.Ask(json_pack("{s:s}", "op", "release"));
    const int64_t end = pipe_.End(objects);
    const Usage after = service.ReadUsage();
    service.AwaitReady();
    start_.ready = Seconds(Now() - begin + held - service.begin);
    start_.populated = service.ReadMemory();
    const int64_t answers = after.answers - before.answers;
    return {objects, SampleOf(end - begin - answers, before, after),
            RunLoop(step, operations)};
}

Slice Pair::Run(Step step)
{
    step.value = ++value_;
    const Json operations = OperationsFor(step);
    return {step.count, RunService(step, operations),
            RunLoop(step, operations)};
}

Sample Pair::RunService(const Step &step, const Json &operations)
{
    const uint64_t signals = step.count * SignalsOf(step.action);
    service.Execute(operations);
    BeginCounting();
    pipe_.Begin();
    const Usage before = service.ReadUsage();
    const Json reply = service.Ask(AnnouncementOf(step, 0));
    const int64_t announced = EndCounting(signals);
    const int64_t written = pipe_.End(step.count);
    const Usage after = service.ReadUsage();
    changes_ += signals;
    const auto begin = static_cast<int64_t>(NumberOf(reply.get(), "begin"));
    return SampleOf((signals > 0 ? announced : written) - begin, before, after);
}

Sample Pair::RunLoop(const Step &step, const Json &operations)
{
    const uint64_t signals = step.count * SignalsOf(step.action);
    loop_.Prepare(step, operations);
    BeginCounting();
    const LoopCost cost = loop_.Run(step);
    const int64_t announced = EndCounting(signals);
    return {Seconds((signals > 0 ? announced : cost.end) - cost.begin),
            Seconds(cost.processor), 0, 0};
}

void Pair::TimeChanges(Step step, int perSecond, std::vector<double> *pTimes)
{
    step.value = ++value_;
    service.Execute(OperationsFor(step));
    BeginCounting(true);
    const Json reply = service.Ask(AnnouncementOf(step, perSecond));
    EndCounting(step.count);
    const json_t *delivered = json_object_get(reply.get(), "delivered");
    std::map<uint32_t, int64_t> begin;
    for (const uint32_t oid : OidsOf(step))
    {
        begin[oid] =
            json_integer_value(json_array_get(delivered, begin.size()));
    }
    for (const Arrival &arrival : subscribers_.front().Arrivals())
    {
        pTimes->push_back(
            static_cast<double>(arrival.time - begin.at(arrival.oid)) / 1e3);
    }
}

void Pair::BeginCounting(bool keepsArrivals)
{
    for (Counter &subscriber : subscribers_)
    {
        subscriber.Begin(keepsArrivals);
    }
}

// Returns when the last signal arrived at the last subscriber.
int64_t Pair::EndCounting(uint64_t signals)
{
    int64_t last = 0;
    for (Counter &subscriber : subscribers_)
    {
        last = std::max(last, subscriber.End(signals));
    }
    return last;
}

void Pair::CheckRows(uint64_t objects) const
{
    CheckSameRows(service.scratch.database, loop_.scratch.database, objects);
}

void Pair::End()
{
    service.End();
    BeginCounting();
}

} // namespace qdb::bench
