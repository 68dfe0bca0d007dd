#include "bench/slow.h"

#include "bench/pair.h"
#include "platform/standin/events.h"

namespace qdb::bench
{
namespace
{

// Calls about an object, each of which would be answered by another process.
constexpr const char *kObjectCalls[] = {
    "ZOILDOGetObjKeyUTF8",    "ZOILGetObjByKey",   "ZOILGetObjByOID",
    "ZOILListChildOIDByType", "ZOILListParentOID",
};
constexpr char kFetch[] = "ZOILGetObjByOID";

constexpr int kDelays[] = {0, 200, 1000, 5000};

// Beside the sets.
constexpr uint32_t kPopulation = 500;
constexpr Step kHangingObject = {Action::Create, Set::OneType, 0, 1, 0};

struct Workload
{
    const char *name;
    Action action;
};
constexpr Workload kSteps[] = {
    {"create", Action::Create},
    {"refresh, twenty types", Action::RefreshChanged},
    {"delete", Action::Delete},
};

class SlowPlatform
{
  public:
    SlowPlatform(const std::string &program, Subscribers &subscribers,
                 uint32_t objects)
        : objects_(objects), pair_(program, subscribers)
    {
    }

    std::vector<SlowStep> Run();

  private:
    void RunSteps(int delay, bool hanging);
    void HangOneCall();
    uint64_t Calls();

    const uint32_t objects_;
    Pair pair_;
    std::vector<SlowStep> steps_;
};

uint64_t SlowPlatform::Calls()
{
    uint64_t calls = 0;
    for (const char *call : kObjectCalls)
    {
        calls += pair_.service.Calls(call);
    }
    return calls;
}

void SlowPlatform::RunSteps(int delay, bool hanging)
{
    for (const char *call : kObjectCalls)
    {
        pair_.service.SetDelay(call, delay);
    }
    for (const Workload &workload : kSteps)
    {
        const uint64_t before = Calls();
        const Slice slice =
            pair_.Run({workload.action, Set::TwentyTypes, 0, objects_, 0});
        steps_.push_back({workload.name, delay, hanging,
                          objects_ / slice.service.elapsed,
                          static_cast<double>(Calls() - before) / objects_});
        const bool isGone = workload.action == Action::Delete;
        pair_.CheckRows(kPopulation + 1 + (isGone ? 0 : objects_));
    }
}

// Its event tells of a change although there is none, so that the end of it
// sends no signal.
void SlowPlatform::HangOneCall()
{
    const std::vector<uint32_t> oids = OidsOf(kHangingObject);
    pair_.service.Hang(kFetch, oids.front());
    pair_.service.Announce({standin::kDirtyList, oids, false});
    pair_.service.AwaitHanging(kFetch);
}

std::vector<SlowStep> SlowPlatform::Run()
{
    StartUp ignored = {};
    pair_.Populate(kPopulation, &ignored);
    pair_.Run(kHangingObject);
    for (const bool hanging : {false, true})
    {
        if (hanging)
        {
            HangOneCall();
        }
        for (const int delay : kDelays)
        {
            RunSteps(delay, hanging);
        }
    }
    pair_.service.ReleaseDelays();
    pair_.End();
    return steps_;
}

} // namespace

std::vector<SlowStep> RunSlow(const std::string &program,
                              Subscribers &subscribers, uint32_t objects)
{
    return SlowPlatform(program, subscribers, objects).Run();
}

} // namespace qdb::bench
