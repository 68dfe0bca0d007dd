#include "bench/slow.h"

#include "bench/pair.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace qdb::bench
{
namespace
{

// Each of them would be answered by another process.
constexpr const char *kObjectCalls[] = {
    "ZOILDOGetObjKeyUTF8",    "ZOILGetObjByKey",   "ZOILGetObjByOID",
    "ZOILListChildOIDByType", "ZOILListParentOID",
};
constexpr char kHangingCall[] = "ZOILGetObjByOID";

constexpr uint32_t kPopulated = 500;
constexpr double kWorkers = 10;

// An object beside the sets. Its event tells of a change although there is
// none, so that the end of it sends no signal.
constexpr Step kOtherCreate = {Action::Create, Set::OneType, 0, 1, 0};
constexpr Step kOtherRefresh = {Action::RefreshSame, Set::OneType, 0, 1, 0};

// The part of what is possible that is to be reached.
struct Delay
{
    int microseconds;
    double target;
};
constexpr Delay kDelays[] = {{0, NAN}, {200, 0.6}, {1000, 0.5}, {5000, 0.85}};

struct SlowStep
{
    const char *name;
    Action action;

    // Without a delay: operations a second at best, and calls of one.
    double perSecond = 0;
    double calls = 0;
};

void SetDelay(Service &service, int microseconds)
{
    for (const char *call : kObjectCalls)
    {
        service.Ask(json_pack("{s:s, s:s, s:i}", "op", "delay", "call", call,
                              "microseconds", microseconds));
    }
}

void HangOneCall(Service &service)
{
    const json_int_t oid = OidsOf(kOtherRefresh).front();
    service.Ask(json_pack("{s:s, s:s, s:s, s:I}", "op", "delay", "call",
                          kHangingCall, "microseconds", "hang", "oid", oid));
    service.Ask(AnnouncementOf(kOtherRefresh, 0));
    service.AwaitHanging(kHangingCall);
}

double CountCalls(Service &service)
{
    uint64_t calls = 0;
    for (const char *call : kObjectCalls)
    {
        const Json reply =
            service.Ask(json_pack("{s:s, s:s}", "op", "calls", "call", call));
        calls += NumberOf(reply.get(), "count");
    }
    return static_cast<double>(calls);
}

// Possible are ten workers that wait for the calls of their operations, and no
// more than without a delay.
Figures::Row Measure(Pair &pair, SlowStep &step, uint32_t objects,
                     const Delay &delay, bool hanging)
{
    const double before = CountCalls(pair.service);
    const Slice slice =
        pair.Run({step.action, Set::TwentyTypes, 0, objects, 0});
    const double perSecond = objects / slice.service.elapsed;
    const double calls = (CountCalls(pair.service) - before) / objects;
    const bool isDelete = step.action == Action::Delete;
    pair.CheckRows(kPopulated + 1 + (isDelete ? 0 : objects));
    if (delay.microseconds == 0 && !hanging)
    {
        step.perSecond = std::max(step.perSecond, perSecond);
        step.calls = calls;
    }
    const double waiting = step.calls * delay.microseconds / 1e6;
    const double possible =
        std::min(step.perSecond, kWorkers / std::max(waiting, 1e-9));
    return {step.name,
            {delay.microseconds / 1e3, hanging ? 1.0 : 0.0, calls, perSecond,
             possible, perSecond / possible, isDelete ? NAN : delay.target}};
}

} // namespace

Figures MeasureSlowPlatform(const std::string &program,
                            Subscribers &subscribers, uint32_t objects)
{
    Figures figures = {"slow platform",
                       {"ms a call", "hanging", "calls", "service/s",
                        "possible/s", "share", ">="},
                       {}};
    SlowStep steps[] = {{"create", Action::Create},
                        {"refresh, twenty types", Action::RefreshChanged},
                        {"delete", Action::Delete}};
    Pair pair(program, subscribers);
    pair.Populate(kPopulated);
    pair.Run(kOtherCreate);
    const auto measure = [&](const Delay &delay, bool hanging)
    {
        std::vector<Figures::Row> rows;
        SetDelay(pair.service, delay.microseconds);
        for (SlowStep &step : steps)
        {
            rows.push_back(Measure(pair, step, objects, delay, hanging));
        }
        return rows;
    };
    // The best of three, since all else is compared with it.
    measure(kDelays[0], false);
    measure(kDelays[0], false);
    for (const bool hanging : {false, true})
    {
        SetDelay(pair.service, 0);
        if (hanging)
        {
            HangOneCall(pair.service);
        }
        for (const Delay &delay : kDelays)
        {
            std::ranges::copy(measure(delay, hanging),
                              std::back_inserter(figures.rows));
        }
    }
    pair.service.Ask(json_pack("{s:s}", "op", "release"));
    pair.End();
    return figures;
}

} // namespace qdb::bench
