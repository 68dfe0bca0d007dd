// To add an action: a function and a line in kActions. It tells the journal of
// everything that it does and says, in its order.
#include "tests/chaos/actions.h"

#include "tests/support/event_records.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>

namespace qdb::chaos
{
namespace
{

bool IsAlive(const Slot &slot)
{
    return slot.alive;
}

bool IsAbsent(const Slot &slot)
{
    return !slot.alive;
}

bool IsAliveObject(const Slot &slot)
{
    return slot.alive && !slot.IsAttribute();
}

bool IsAttribute(const Slot &slot)
{
    return slot.IsAttribute();
}

bool IsAliveAttribute(const Slot &slot)
{
    return slot.alive && slot.IsAttribute();
}

bool IsRemovable(const Slot &slot)
{
    return slot.alive && !slot.Has(kFixed);
}

bool IsWatched(const Slot &slot)
{
    return slot.alive && *slot.kind->watched != '\0';
}

bool GetsRawData(const Slot &slot)
{
    return slot.Has(kRaw);
}

// --- One object or attribute -------------------------------------------------

std::string Announce(bool announce)
{
    return std::string(R"(,"announce":)") + (announce ? "true" : "false");
}

// As signals tell of an attribute.
Json Told(const Slot &slot)
{
    return Driver::Attribute(slot.kind->interface, slot.key, slot.oid);
}

void Appear(Chaos &chaos, Slot &slot, bool announce)
{
    slot.alive = true;
    chaos.journal.Add(slot, What::Appear);
    std::string command = chaos.world.Creation(slot);
    command.insert(command.size() - 1, Announce(announce));
    chaos.driver.Do(command);
    if (announce)
    {
        chaos.journal.Add(slot, What::ToldCreate);
        if (slot.IsAttribute())
        {
            chaos.driver.Bus().SendAdded(Told(slot).get());
        }
    }
}

void Change(Chaos &chaos, Slot &slot, const char *column, bool announce)
{
    const std::string name = NameOf(column);
    const std::string array = slot.kind->array;
    const bool isArray =
        !array.empty() && array.substr(0, array.find(':')) == name;
    const size_t length = isArray ? 1 + chaos.Below(8) : 0;
    const std::string values = "{" +
                               (isArray ? chaos.world.FreshArray(slot, length)
                                        : chaos.world.Fresh(column)) +
                               "}";
    // An array brings its count along.
    chaos.journal.Add(slot, What::Change, isArray ? "*" : name, length);
    chaos.driver.Do(slot.Command("set", "attribute") + R"(,"values":)" +
                    values + Announce(announce) + "}");
    if (announce)
    {
        chaos.journal.Add(slot, What::ToldDirty);
        if (slot.IsAttribute())
        {
            chaos.driver.Bus().SendChanged(
                Told(slot).get(),
                Json(json_loads(values.c_str(), 0, nullptr)).get());
        }
    }
}

void Disappear(Chaos &chaos, Slot &slot, bool announce)
{
    slot.alive = false;
    chaos.journal.Add(slot, What::Disappear);
    chaos.driver.Do(slot.Command("delete", "remove") + R"(,"oids":[)" +
                    std::to_string(slot.oid) + "]" + Announce(announce) + "}");
    if (announce)
    {
        chaos.journal.Add(slot, What::ToldDestroy);
        if (slot.IsAttribute())
        {
            chaos.driver.Bus().SendRemoved(Told(slot).get());
        }
    }
}

template <bool announce>
void Create(Chaos &chaos)
{
    if (Slot *slot = chaos.Pick(IsAbsent))
    {
        Appear(chaos, *slot, announce);
    }
}

template <bool announce>
void Set(Chaos &chaos)
{
    Slot *slot = chaos.Pick(IsAlive);
    Change(chaos, *slot, slot->kind->columns[chaos.Below(2)], announce);
}

template <bool announce>
void Delete(Chaos &chaos)
{
    Disappear(chaos, *chaos.Pick(IsRemovable), announce);
}

// Seen by passes alone.
void ChangeWatched(Chaos &chaos, Slot &slot)
{
    const char *watched = slot.kind->watched;
    Change(chaos, slot,
           *watched == '*' ? slot.kind->columns[chaos.Below(2)] : watched,
           false);
}

void SetWatched(Chaos &chaos)
{
    ChangeWatched(chaos, *chaos.Pick(IsWatched));
}

// The refreshes of one object overlap.
void SetOften(Chaos &chaos)
{
    Slot *slot = chaos.Pick(IsAlive);
    for (uint32_t i = 0; i < 4; ++i)
    {
        Change(chaos, *slot, slot->kind->columns[i % 2], true);
    }
}

void Replace(Chaos &chaos)
{
    Slot *slot = chaos.Pick(IsRemovable);
    Disappear(chaos, *slot, true);
    Appear(chaos, *slot, true);
}

// The service is told of a change, and the object is lost before it looks, or
// between two of its looks.
void SetAndVanish(Chaos &chaos)
{
    Slot *slot = chaos.Pick(IsRemovable);
    Change(chaos, *slot, slot->kind->columns[0], true);
    Disappear(chaos, *slot, false);
}

// Objects of one event, which the service then deals with at once.
void DeleteBunch(Chaos &chaos)
{
    std::vector<Slot *> slots;
    for (int i = 0; i < 3; ++i)
    {
        slots.push_back(chaos.Pick(
            [](const Slot &slot)
            {
                return IsRemovable(slot) && IsAliveObject(slot);
            }));
        Disappear(chaos, *slots.back(), false);
        chaos.journal.Add(*slots.back(), What::ToldDestroy);
    }
    chaos.SendList(8, slots);
}

// A list about an object that nothing has happened to.
template <int type, What what>
void SendAgain(Chaos &chaos)
{
    Slot *slot = chaos.Pick(IsAliveObject);
    chaos.journal.Add(*slot, what);
    chaos.SendList(type, {slot});
}

void Status(Chaos &chaos)
{
    Slot *slot = chaos.Pick(IsAliveObject);
    chaos.journal.Add(*slot, What::Change, "DOH_ObjStatus");
    chaos.journal.Add(*slot, What::ToldStatus);
    chaos.driver.Do(slot->Command("status", "") + R"(,"status":)" +
                    std::to_string(chaos.Below(250)) + "}");
}

// A file comes, changes, is empty or is gone.
void RawData(Chaos &chaos)
{
    Slot *slot = chaos.Pick(GetsRawData);
    const std::string path = chaos.driver.Service().Root().Path() + "/raw" +
                             std::to_string(slot->oid);
    if (const uint32_t size = chaos.Below(200); size < 20)
    {
        std::filesystem::remove(path);
    }
    else
    {
        std::ofstream(path) << std::string(size - 20, 'r');
    }
    chaos.journal.Add(*slot, What::ToldRaw);
    chaos.driver.Bus().SendRawData(slot->key, path);
}

// --- Everything at once ------------------------------------------------------

template <typename Fits>
void TellAll(Chaos &chaos, What what, Fits fits)
{
    for (const Slot &slot : chaos.world.slots)
    {
        if (fits(slot))
        {
            chaos.journal.Add(slot, what);
        }
    }
}

void CommitOne(Chaos &chaos, const std::string &name)
{
    TellAll(chaos, What::ToldCreate,
            [&](const Slot &slot)
            {
                return slot.IsAttribute() &&
                       name.ends_with(slot.kind->interface);
            });
    chaos.driver.Bus().SendCommit(name);
}

void Commit(Chaos &chaos)
{
    CommitOne(chaos, AttributeInterfaces({})[chaos.Below(4)]);
}

// The manager comes back with other contents, and may announce them.
void Restart(Chaos &chaos)
{
    for (int i = 0; i < 4; ++i)
    {
        Slot *slot = chaos.Pick(IsAliveAttribute);
        i % 2 == 0 ? Disappear(chaos, *slot, false)
                   : Change(chaos, *slot, slot->kind->columns[1], false);
    }
    TellAll(chaos, What::Cleared, IsAttribute);
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

void TellDetach(Chaos &chaos)
{
    for (const Slot &slot : chaos.world.slots)
    {
        chaos.journal.Add(slot, What::Cleared);
        if (slot.Has(kRestored))
        {
            chaos.journal.Add(slot, What::Restored);
        }
    }
    chaos.driver.NoteDetach();
}

void Attach(Chaos &chaos)
{
    TellAll(chaos, What::ToldCreate, IsAliveObject);
    chaos.driver.Do(R"({"op":"attach"})");
    chaos.isDetached = false;
}

// The Data Manager goes, or comes back.
void DetachOrAttach(Chaos &chaos)
{
    if (chaos.isDetached)
    {
        return Attach(chaos);
    }
    TellDetach(chaos);
    chaos.driver.Do(R"({"op":"detach"})");
    chaos.isDetached = true;
}

// It goes and is back before anybody knows; nobody announces its objects.
void DetachAlone(Chaos &chaos)
{
    TellDetach(chaos);
    chaos.driver.Do(R"({"op":"event","hex":"10000000)"
                    R"(0c0000000000000000000000"})");
}

// --- Around it ---------------------------------------------------------------

void Hold(Chaos &chaos)
{
    chaos.driver.Hold(static_cast<int>(
        chaos.Below(3) > 0 ? 20 + chaos.Below(400) : 1050 + chaos.Below(400)));
}

struct Action
{
    const char *name;
    uint32_t weight;
    void (*run)(Chaos &);
    bool isSmall; // tells the service of one thing, or of nothing
};

// clang-format off
constexpr Action kActions[] = {
    {"create",           85, Create<true>,                        true},
    {"create silently",  14, Create<false>,                       true},
    {"set",             140, Set<true>,                           true},
    {"set silently",     25, Set<false>,                          true},
    {"set watched",      15, SetWatched,                          true},
    {"set often",         5, SetOften,                            true},
    {"delete",           37, Delete<true>,                        true},
    {"vanish",           12, Delete<false>,                       true},
    {"replace",           5, Replace,                             true},
    {"set and vanish",    5, SetAndVanish,                        true},
    {"delete bunch",      6, DeleteBunch,                         true},
    {"dirty again",      15, SendAgain<3, What::ToldDirty>,       true},
    {"create again",      8, SendAgain<7, What::ToldCreate>,      true},
    {"status",           25, Status,                              true},
    {"raw data",          8, RawData,                             true},
    {"commit",            8, Commit,                              true},
    {"restart",           4, Restart,                             false},
    {"detach or attach",  3, DetachOrAttach,                      false},
    {"detach alone",      1, DetachAlone,                         false},
    {"hold database",     5, Hold,                                false},
    {"open pipe",         6, [](Chaos &c) { c.driver.OpenPipe(); },  false},
    {"close pipe",        3, [](Chaos &c) { c.driver.ClosePipe(); }, false},
};
// clang-format on

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

void RunAny(Chaos &chaos, bool isSmall)
{
    const auto weigh = [=](uint32_t sum, const Action &action)
    {
        return sum + (action.isSmall || !isSmall ? action.weight : 0);
    };
    uint32_t at = chaos.Below(
        std::accumulate(std::begin(kActions), std::end(kActions), 0u, weigh));
    for (const Action &action : kActions)
    {
        const uint32_t weight = weigh(0, action);
        if (at < weight)
        {
            chaos.Trace(action.name);
            return action.run(chaos);
        }
        at -= weight;
    }
}

std::string FaultCommand(const char *call, uint32_t times, uint32_t skip)
{
    return R"({"op":"fault","call":")" + std::string(call) +
           R"(","status":5,"times":)" + std::to_string(times) + R"(,"skip":)" +
           std::to_string(skip) + "}";
}

} // namespace

Chaos::Chaos(uint32_t seed, bool trace, World &theWorld, Journal &theJournal,
             Driver &theDriver)
    : world(theWorld), journal(theJournal), driver(theDriver), engine_(seed),
      trace_(trace)
{
}

// Not std::uniform_int_distribution, whose results differ between libraries.
uint32_t Chaos::Below(uint32_t limit)
{
    return static_cast<uint32_t>(engine_() % limit);
}

void Chaos::Trace(const std::string &text) const
{
    if (trace_)
    {
        std::printf("%zu %s\n", journal.Number(), text.c_str());
    }
}

void Chaos::SendList(int type, const std::vector<Slot *> &slots)
{
    std::vector<uint32_t> oids;
    for (const Slot *slot : slots)
    {
        oids.push_back(slot->oid);
    }
    std::string hex;
    for (const uint8_t byte : test::List(static_cast<uint16_t>(type), oids))
    {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", byte);
        hex += digits;
    }
    driver.Do(R"({"op":"event","hex":")" + hex + R"("})");
}

bool Chaos::Settle()
{
    journal.Now().heldMs = driver.Release();
    bool passRan = false;
    const bool settled = driver.Settle(&passRan);
    journal.Now().passRan = passRan;
    journal.NextEpoch();
    return settled;
}

bool Chaos::RunEpoch()
{
    const bool fails = Below(8) == 0;
    const uint32_t actions = 1 + Below(fails ? 6 : 30);
    const char *call = kCalls[Below(std::size(kCalls))];
    if (fails)
    {
        Trace(std::string("fail ") + call);
        journal.Now().fault = call;
        driver.Do(FaultCommand(call, 1 + Below(3), Below(4)));
    }
    for (uint32_t i = 0; i < actions; ++i)
    {
        RunAny(*this, fails);
    }
    const bool settled = Settle();
    if (fails)
    {
        driver.Do(FaultCommand(call, 0, 0));
    }
    return settled;
}

bool Chaos::Quieten()
{
    constexpr size_t kPromisedPasses = 2;
    if (isDetached || Below(4) > 0)
    {
        Attach(*this);
    }
    if (!Settle())
    {
        return false;
    }
    LeaveToFailQueue();
    LeaveToReloads();
    return Settle() && driver.WaitPasses(kPromisedPasses);
}

// Objects that have no row change.
void Chaos::LeaveToFailQueue()
{
    for (int i = 0; i < 5; ++i)
    {
        Slot *slot = Pick(
            [](const Slot &candidate)
            {
                return IsRemovable(candidate) && candidate.Has(kKept);
            });
        Disappear(*this, *slot, true);
        Settle();
        Appear(*this, *slot, false);
        Change(*this, *slot, slot->kind->columns[1], true);
        Settle();
    }
}

// What happens without a word.
void Chaos::LeaveToReloads()
{
    for (Slot &slot : world.slots)
    {
        if (slot.Has(kCounted) && Below(3) == 0)
        {
            slot.alive ? Disappear(*this, slot, false)
                       : Appear(*this, slot, false);
        }
        if (IsWatched(slot))
        {
            ChangeWatched(*this, slot);
        }
    }
}

} // namespace qdb::chaos
