// To add an action: a line in kActions, and a function unless it consists of
// steps of one object.
#include "tests/chaos/actions.h"

#include "tests/chaos/steps.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace qdb::chaos
{
namespace
{

// --- Everything at once ------------------------------------------------------

// Objects of one event, which the service then deals with at once.
void DeleteBunch(Chaos &chaos)
{
    std::vector<uint32_t> oids;
    for (int i = 0; i < 3; ++i)
    {
        Slot *slot = chaos.Pick(kRemovable | kObject);
        Step(chaos, *slot, 'd');
        chaos.world.Tell(*slot, Told::Destroy);
        oids.push_back(slot->oid);
    }
    SendList(chaos, 8, oids);
}

void CommitOne(Chaos &chaos, const std::string &name)
{
    for (Slot &slot : chaos.world.slots)
    {
        if (slot.IsAttribute() && name.ends_with(slot.kind->interface))
        {
            chaos.world.Tell(slot, Told::Create);
        }
    }
    chaos.driver.Bus().SendCommit(name);
}

void Commit(Chaos &chaos)
{
    CommitOne(chaos, AttributeInterfaces({})[chaos.Below(4)]);
}

void DoubtAll(Chaos &chaos, unsigned traits)
{
    chaos.world.epoch.cleared = true;
    for (Slot &slot : chaos.world.slots)
    {
        if (slot.Is(traits))
        {
            chaos.world.Note(slot, "cleared");
            chaos.world.Doubt(slot);
        }
    }
}

// The manager comes back with other contents, and may announce them.
void Restart(Chaos &chaos)
{
    for (const char step : {'d', 'c', 'd', 'c'})
    {
        Step(chaos, *chaos.Pick(kAlive | kAttribute), step);
    }
    DoubtAll(chaos, kAttribute);
    chaos.driver.Bus().TakeName();
    chaos.driver.Bus().GiveUpName();
    if (chaos.Below(2) == 0)
    {
        chaos.Settle();
        for (const std::string &name : AttributeInterfaces({}))
        {
            CommitOne(chaos, name);
        }
    }
}

// The Data Manager goes, and is back before anybody knows; all is cleared, and
// some comes back at once.
void Detach(Chaos &chaos)
{
    DoubtAll(chaos, 0);
    chaos.driver.NoteDetach();
    chaos.driver.Do(R"({"op":"event","hex":"10000000)"
                    R"(0c0000000000000000000000"})");
    chaos.isCleared = true;
}

// It announces its objects.
void Attach(Chaos &chaos)
{
    chaos.Settle(); // or all that comes back is told together with the clearing
    for (Slot &slot : chaos.world.slots)
    {
        if (slot.Is(kAlive | kObject))
        {
            chaos.world.Tell(slot, Told::Create);
        }
    }
    chaos.driver.Do(R"({"op":"attach"})");
    chaos.isCleared = false;
}

void HoldDatabase(Chaos &chaos)
{
    chaos.driver.Hold(static_cast<int>(
        chaos.Below(6) > 0 ? 20 + chaos.Below(300) : 1050 + chaos.Below(1500)));
}

// --- A stranger --------------------------------------------------------------

void Bother(Chaos &chaos)
{
    for (uint32_t left = 1 + chaos.Below(20); left > 0; --left)
    {
        chaos.driver.Other().Bother(static_cast<uint32_t>(chaos.engine()));
    }
}

void Flood(Chaos &chaos)
{
    chaos.world.epoch.flooded = true;
    chaos.driver.Other().Flood();
}

// --- The choice --------------------------------------------------------------

// Either steps of one slot that fits, or a function.
struct Action
{
    uint32_t weight;
    unsigned fits; // traits
    const char *steps;
    void (*run)(Chaos &) = nullptr;
};

// clang-format off
constexpr Action kActions[] = {
    {250, kAbsent,          "A"},
    { 40, kAbsent,          "a"},
    {420, kAlive,           "C"},
    { 75, kAlive,           "c"},
    { 45, kWatched,         "w"},
    { 15, kAlive,           "CCCC"}, // refreshes of one object overlap
    {110, kRemovable,       "D"},
    { 35, kRemovable,       "d"},
    { 15, kRemovable,       "DA"},
    { 15, kRemovable,       "Cd"}, // lost before a look, or between two
    { 45, kAlive | kObject, "3"},
    { 25, kAlive | kObject, "7"},
    { 75, kAlive | kObject, "s"},
    { 25, kRaw,             "r"},
    { 18, 0, "", DeleteBunch},
    { 24, 0, "", Commit},
    {300, 0, "", Bother},
    {  4, 0, "", Flood},
    {  8, 0, "", Restart},
    {  5, 0, "", Detach},
    { 15, 0, "", HoldDatabase},
    { 18, 0, "", [](Chaos &c) { c.driver.OpenPipe(); }},
    {  9, 0, "", [](Chaos &c) { c.driver.ClosePipe(); }},
};

// Platform calls that fail now and then.
constexpr const char *kCalls[] = {
    "CfgEnumAttribute_get_object",
    "CfgGroup_get_object",
    "CfgIntAttribute_get_object",
    "CfgPasswdAttribute_get_object",
    "CfgStrAttribute_get_object",
    "ZOAllocMem",
    "ZOILDOGetObjKeyUTF8",
    "ZOILGetObjByKey",
    "ZOILGetObjByOID",
    "ZOILListChildOIDByType",
    "ZOILListParentOID",
    "client_get_obj_body_ptr",
    "client_get_objects",
};
// clang-format on

// `isSmall`: what concerns one object alone.
void RunAny(Chaos &chaos, bool isSmall)
{
    const auto weigh = [=](const Action &action)
    {
        return action.run == nullptr || !isSmall ? action.weight : 0;
    };
    uint32_t sum = 0;
    for (const Action &action : kActions)
    {
        sum += weigh(action);
    }
    const Action *action = kActions;
    for (uint32_t at = chaos.Below(sum); at >= weigh(*action); ++action)
    {
        at -= weigh(*action);
    }
    if (action->run != nullptr)
    {
        return action->run(chaos);
    }
    Slot *slot = chaos.Pick(action->fits);
    for (const char *step = action->steps; slot != nullptr && *step; ++step)
    {
        Step(chaos, *slot, *step);
    }
}

std::string FaultCommand(const char *call, uint32_t times, uint32_t skip)
{
    return R"({"op":"fault","call":")" + std::string(call) +
           R"(","status":5,"times":)" + std::to_string(times) + R"(,"skip":)" +
           std::to_string(skip) + "}";
}

// --- A platform that takes its time ------------------------------------------

// Lines that stand between a commit and its signal.
constexpr const char *kSlowLines[] = {"createObjJsonStr", "Json_Out_Str",
                                      "buffer ={"};
constexpr uint32_t kLongestDelay = 3000; // microseconds

std::string DelayCommand(const std::string &call, const std::string &text,
                         bool late, const std::string &length)
{
    return R"({"op":"delay","call":")" + call + R"(","text":")" + text +
           R"(","late":)" + (late ? "true" : "false") + R"(,"microseconds":)" +
           length;
}

void SlowDown(Chaos &chaos)
{
    for (uint32_t left = 1 + chaos.Below(3); left > 0; --left)
    {
        const bool isLine = chaos.Below(3) == 0;
        chaos.driver.Do(
            DelayCommand(
                isLine ? "vexoprintf" : kCalls[chaos.Below(std::size(kCalls))],
                isLine ? kSlowLines[chaos.Below(3)] : "", chaos.Below(2) == 0,
                std::to_string(1 + chaos.Below(kLongestDelay))) +
            R"(,"random":true})");
    }
    if (chaos.Below(6) == 0)
    {
        const char *call = kCalls[chaos.Below(std::size(kCalls))];
        const bool late = chaos.Below(2) == 0;
        chaos.driver.Do(DelayCommand(call, "", late, "\"hang\"") +
                        R"(,"times":1,"skip":)" +
                        std::to_string(chaos.Below(20)) + "}");
        chaos.hang = DelayCommand(call, "", late, "0") + "}";
    }
}

// --- What makes rows exact ---------------------------------------------------

// Takes away what is in doubt, or everything, in one epoch, and brings back in
// another what was there. False when the service is stuck.
bool Renew(Chaos &chaos, bool everything)
{
    std::vector<Slot *> renewed;
    // Children first: those that are there when their parent goes are in doubt.
    for (auto at = chaos.world.slots.rbegin(); at != chaos.world.slots.rend();
         ++at)
    {
        Slot &slot = *at;
        if (!everything && (slot.isExact || slot.Is(kFixed)))
        {
            continue;
        }
        if (slot.alive)
        {
            renewed.push_back(&slot);
        }
        Step(chaos, slot, slot.alive ? 'D' : '8');
    }
    if (!chaos.Settle())
    {
        return false;
    }
    std::reverse(renewed.begin(), renewed.end());
    for (Slot *slot : renewed)
    {
        Step(chaos, *slot, 'A');
    }
    return chaos.Settle();
}

} // namespace

bool RunEpoch(Chaos &chaos)
{
    const bool fails = chaos.Below(8) == 0;
    const bool isSlow = chaos.Below(2) == 0;
    const uint32_t actions = 1 + chaos.Below(fails ? 6 : 30);
    const char *call = kCalls[chaos.Below(std::size(kCalls))];
    if (!fails && chaos.isCleared && chaos.Below(4) == 0)
    {
        Attach(chaos);
    }
    if (isSlow)
    {
        SlowDown(chaos);
    }
    if (fails)
    {
        chaos.world.epoch.fault = call;
        chaos.driver.Do(FaultCommand(call, 1 + chaos.Below(3), chaos.Below(4)));
    }
    for (uint32_t i = 0; i < actions; ++i)
    {
        RunAny(chaos, fails);
    }
    const bool settled = chaos.Settle();
    if (isSlow)
    {
        chaos.driver.Do(R"({"op":"release"})");
    }
    if (fails)
    {
        chaos.driver.Do(FaultCommand(call, 0, 0));
    }
    return settled && (chaos.Below(4) > 0 || Renew(chaos, false));
}

bool Quieten(Chaos &chaos)
{
    constexpr size_t kPasses = 2;
    return Renew(chaos, true) && chaos.driver.WaitPasses(kPasses);
}

} // namespace qdb::chaos
