#include "bench/slow.h"

#include "bench/pair.h"

#include <algorithm>
#include <cmath>

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

constexpr uint32_t kPopulation = 500;
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

    // Without a delay: operations a second, and calls of one.
    double perSecond;
    double calls;
};

class SlowPlatform
{
  public:
    SlowPlatform(const std::string &program, Subscribers &subscribers,
                 uint32_t objects)
        : pair_(program, subscribers), objects_(objects)
    {
    }

    Figures Run();

  private:
    void HangOneCall();
    void SetDelay(int microseconds);
    uint64_t Calls();
    Figures::Row Measure(SlowStep *pStep, const Delay &delay, bool hanging);

    Pair pair_;
    const uint32_t objects_;
};

void SlowPlatform::HangOneCall()
{
    const json_int_t oid = OidsOf(kOtherRefresh).front();
    pair_.service.Ask(json_pack("{s:s, s:s, s:s, s:I}", "op", "delay", "call",
                                kHangingCall, "microseconds", "hang", "oid",
                                oid));
    pair_.service.Ask(AnnouncementOf(kOtherRefresh, 0));
    pair_.service.AwaitHanging(kHangingCall);
}

void SlowPlatform::SetDelay(int microseconds)
{
    for (const char *call : kObjectCalls)
    {
        pair_.service.Ask(json_pack("{s:s, s:s, s:i}", "op", "delay", "call",
                                    call, "microseconds", microseconds));
    }
}

uint64_t SlowPlatform::Calls()
{
    uint64_t calls = 0;
    for (const char *call : kObjectCalls)
    {
        const Json reply = pair_.service.Ask(
            json_pack("{s:s, s:s}", "op", "calls", "call", call));
        calls += NumberOf(reply.get(), "count");
    }
    return calls;
}

// Possible are ten workers that wait for the calls of their operations, and no
// more than without a delay.
Figures::Row SlowPlatform::Measure(SlowStep *pStep, const Delay &delay,
                                   bool hanging)
{
    const uint64_t before = Calls();
    const Slice slice =
        pair_.Run({pStep->action, Set::TwentyTypes, 0, objects_, 0});
    const double perSecond = objects_ / slice.service.elapsed;
    const double calls = static_cast<double>(Calls() - before) / objects_;
    if (pStep->perSecond == 0)
    {
        pStep->perSecond = perSecond;
        pStep->calls = calls;
    }
    const bool isDelete = pStep->action == Action::Delete;
    pair_.CheckRows(kPopulation + 1 + (isDelete ? 0 : objects_));
    const double waiting = pStep->calls * delay.microseconds / 1e6;
    const double possible =
        std::min(pStep->perSecond, kWorkers / std::max(waiting, 1e-9));
    return {pStep->name,
            {delay.microseconds / 1e3, hanging ? 1.0 : 0.0, calls, perSecond,
             possible, perSecond / possible, isDelete ? NAN : delay.target}};
}

Figures SlowPlatform::Run()
{
    Figures figures = {"slow platform",
                       {"ms a call", "hanging", "calls", "service/s",
                        "possible/s", "share", ">="},
                       {}};
    SlowStep steps[] = {{"create", Action::Create, 0, 0},
                        {"refresh, twenty types", Action::RefreshChanged, 0, 0},
                        {"delete", Action::Delete, 0, 0}};
    pair_.Populate(kPopulation);
    pair_.Run(kOtherCreate);
    for (const bool hanging : {false, true})
    {
        if (hanging)
        {
            HangOneCall();
        }
        for (const Delay &delay : kDelays)
        {
            SetDelay(delay.microseconds);
            for (SlowStep &step : steps)
            {
                figures.rows.push_back(Measure(&step, delay, hanging));
            }
        }
        SetDelay(0);
    }
    pair_.service.Ask(json_pack("{s:s}", "op", "release"));
    pair_.End();
    return figures;
}

} // namespace

Figures MeasureSlowPlatform(const std::string &program,
                            Subscribers &subscribers, uint32_t objects)
{
    return SlowPlatform(program, subscribers, objects).Run();
}

} // namespace qdb::bench
