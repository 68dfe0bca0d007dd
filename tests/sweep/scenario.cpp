#include "tests/sweep/scenario.h"

#include "core/ready.h"
#include "core/sleep.h"
#include "core/state.h"
#include "core/statistics.h"
#include "queues/event_queue.h"
#include "standin/standin.h"
#include "tests/support/change_listener.h"
#include "tests/support/event_records.h"
#include "tests/support/wait.h"
#include "tests/sweep/fault.h"
#include "tests/sweep/managers.h"
#include "tools/dmctl/config_bus.h"

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <string>

namespace qdb::sweep
{
namespace
{

using test::Words;

// --- What the log tells ------------------------------------------------------

std::atomic<bool> gHasEnded = false;
std::atomic<int> gStarted = 0; // workers that have begun to wait
std::atomic<int> gPasses = 0;
std::atomic<int> gReloads = 0; // behind detaches
std::atomic<int> gFences = 0;  // signals that workers have met

struct Sign
{
    const char *text;
    std::atomic<int> &count;
};
Sign gSigns[] = {
    {"Call QdbdeQueue for thID=", gStarted},
    {"end of loop", gPasses},
    {"Reload Config Objects - ", gReloads},
    {"path =  /fence", gFences},
};

void ReadLine(int /*level*/, const char *line)
{
    for (const Sign &sign : gSigns)
    {
        sign.count += std::strstr(line, sign.text) != nullptr ? 1 : 0;
    }
}

// --- Time --------------------------------------------------------------------

constexpr unsigned kTurnOfPause = 5000; // between passes there are a thousand
constexpr int kPatienceMs = 300;        // for what a fault may keep away
constexpr int kHangMs = 30;
std::atomic<bool> gWantsPass = false;

void Sleep(unsigned microseconds)
{
    if (microseconds == kTurnOfPause && !gWantsPass)
    {
        usleep(1000);
    }
    else if (microseconds < kTurnOfPause)
    {
        usleep(100);
    }
}

template <typename Condition>
void Await(Condition condition, int patienceMs = kPatienceMs)
{
    const auto isOver = [&]
    {
        return HasEnded() || condition();
    };
    if (!test::WaitUntil(isOver, kHangMs))
    {
        LetGo();
        test::WaitUntil(isOver, patienceMs);
    }
}

void AwaitRest()
{
    Await(
        []
        {
            return standin::WaitDelivered(1) && QdbEventQSize == 0 &&
                   std::ranges::all_of(Figures().workerBusySince,
                                       [](const Cell &since)
                                       {
                                           return since == 0;
                                       });
        });
}

// So many more have ended, which come at once.
void AwaitPasses(int count)
{
    const int before = gPasses;
    gWantsPass = true;
    Await(
        [=]
        {
            return gPasses >= before + count;
        });
    gWantsPass = false;
}

const test::TempRoot *gRoot = nullptr;

// --- The play ----------------------------------------------------------------

ConfigBus &Bus()
{
    static ConfigBus bus;
    return bus;
}

test::ChangeListener &Signals()
{
    static test::ChangeListener listener;
    return listener;
}

test::PipeReader &Pipe()
{
    static test::PipeReader reader(gRoot->Pipe());
    return reader;
}

// Whatever was sent before has been heard then. False when it isn't.
bool AwaitBus()
{
    const int before = gFences;
    Bus().SendAdded(JsonPtr(json_pack("{s:s,s:s,s:i}", "interface", "Fence",
                                      "path", "/fence", "oid", 1))
                        .get());
    Await(
        [=]
        {
            return gFences > before;
        });
    AwaitRest();
    return gFences > before;
}

void PlayObjects()
{
    for (const Object &object : kObjects)
    {
        PutObject(object, object.oid + kNew, true);
        SetObject(object.oid, object.changed, true);
    }
    AwaitRest();
    Pipe().TakeBytes();
    for (const Object &object : kObjects)
    {
        SetObject(object.oid + kNew, object.changed, true);
        standin::SetStatus(object.oid, 3);
    }
    AwaitRest();
    standin::DeleteObjects(Words{kStatus + kNew, kList + kNew, kWide + kNew});
    standin::DeleteObjects(Words{kModule + kNew});
    standin::SendRecord(test::List(3, {kStatus + kNew}));
    AwaitRest();
}

void PlaySettings()
{
    const std::string raw = gRoot->Path() + "/raw";
    for (const Setting &setting : kSettings)
    {
        PutSetting(setting, setting.changed);
        Bus().SendChanged(Announced(setting).get(),
                          Parse(setting.changed).get());
    }
    std::ofstream(raw) << "raw data";
    Bus().SendRawData(kRawSetting.key, raw);
    AwaitBus();
    standin::RemoveAttribute(kSettings[0].key);
    Bus().SendRemoved(Announced(kSettings[0]).get());
    AwaitBus();
    PutSetting(kSettings[0]);
    Bus().SendAdded(Announced(kSettings[0]).get());
    for (const std::string &name : AttributeInterfaces({}))
    {
        Bus().SendCommit(name);
    }
    AwaitBus();
    Bus().TakeName();
    Bus().GiveUpName();
    AwaitBus();
}

// What a pass finds by itself.
void PlayPass()
{
    for (const Object &object : kObjects)
    {
        SetObject(object.oid, R"({"DOH_ObjStatus":5})", false);
        SetObject(object.oid, object.changed, false);
    }
    standin::DeleteObjects(Words{kBezel}, false);
    PutObject(kObjects[0], kStatus + 2 * kNew, false);
    PutSetting(kSeenSetting, R"({"DisplayName":"other"})");
    AwaitPasses(1);
}

void Detach()
{
    const int before = gReloads;
    standin::Detach();
    Await(
        [=]
        {
            return gReloads > before;
        });
}

// What comes back is a small part: the rest would only do the same again.
void PlayDetach()
{
    const std::vector<uint32_t> ids = standin::ObjectIds();
    Words rest;
    std::ranges::copy_if(ids, std::back_inserter(rest),
                         [](uint32_t oid)
                         {
                             return oid < kParent || oid > kSystem;
                         });
    Detach();
    standin::DeleteObjects(rest, false);
    standin::Attach();
    AwaitBus();
}

} // namespace

void NoteEnd()
{
    gHasEnded = true;
}

void DetachAndAttach()
{
    Detach();
    standin::Attach();
    AwaitRest();
}

void AwaitEndOfFault()
{
    AwaitPasses(2);
    AwaitRest();
}

std::string FollowChange(int patienceMs)
{
    Signals().Take();
    Pipe().TakeBytes();
    standin::SetObject(kStatus, Parse(R"({"popName":"told"})").get());
    bool hasSignal = false;
    bool hasRecord = false;
    Await(
        [&]
        {
            hasSignal |= !Signals().Take().empty();
            hasRecord |= !Pipe().TakeBytes().empty();
            return hasSignal && hasRecord;
        },
        patienceMs);
    return std::string(hasSignal ? "" : "no signal ") +
           (hasRecord ? "" : "no record");
}

bool HasEnded()
{
    return gHasEnded;
}

void Begin(const test::TempRoot &root)
{
    gRoot = &root;
    Signals();
    Pipe();
    Bus();
    SetSleepFunction(Sleep);
    standin::SetLog(6, ReadLine);
    FillManagers();
}

void Play()
{
    constexpr int kStartMs = 5000;
    Await(
        []
        {
            return gStarted > 0;
        },
        kStartMs);
    Await(
        []
        {
            return standin::IntegerAttribute(kReadyKey, 0) == 1 && gPasses > 0;
        });
    PlayObjects();
    PlaySettings();
    PlayPass();
    PlayDetach();
}

bool AnnounceAll()
{
    standin::SendObjectList(8, AllOids());
    standin::SendObjectList(7, standin::ObjectIds());
    for (const Setting &setting : kSettings)
    {
        Bus().SendRemoved(Announced(setting).get());
        Bus().SendAdded(Announced(setting).get());
    }
    return AwaitBus();
}

} // namespace qdb::sweep
