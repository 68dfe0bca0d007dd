#include "tests/chaos/steps.h"

#include "tests/support/event_records.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace qdb::chaos
{
namespace
{

std::string Announce(bool announce)
{
    return std::string(R"(,"announce":)") + (announce ? "true" : "false");
}

// An attribute as the configuration manager's signals tell of it.
Json Announced(const Slot &slot)
{
    return Json(json_pack("{s:s,s:s,s:s,s:I}", "interface",
                          slot.kind->interface, "key", slot.key.c_str(), "path",
                          standin::AttributePath(slot.key).c_str(), "oid",
                          json_int_t{slot.oid}));
}

void Appear(Chaos &chaos, Slot &slot, bool announce)
{
    slot.alive = true;
    chaos.world.Note(slot, "appears");
    chaos.world.DoubtChildren(slot);
    std::string command = chaos.world.Creation(slot);
    command.insert(command.size() - 1, Announce(announce));
    chaos.driver.Do(command);
    if (!announce)
    {
        return chaos.world.Doubt(slot);
    }
    chaos.world.Tell(slot, Told::Create);
    if (slot.IsAttribute())
    {
        chaos.driver.Bus().SendAdded(Announced(slot).get());
    }
}

void Change(Chaos &chaos, Slot &slot, const char *column, bool announce)
{
    const std::string name = NameOf(column);
    const size_t before = slot.length;
    const std::string values =
        "{" +
        (name == NameOf(slot.kind->array)
             ? chaos.world.FreshArray(slot, 1 + chaos.Below(8))
             : chaos.world.Fresh(column)) +
        "}";
    chaos.world.Note(slot, "changes " + values);
    chaos.driver.Do(slot.Command("set", "attribute") + R"(,"values":)" +
                    values + Announce(announce) + "}");
    // Of an array that becomes shorter the elements past its end stay.
    if (!announce || slot.length < before)
    {
        chaos.world.Doubt(slot);
    }
    if (announce)
    {
        chaos.world.Tell(slot, Told::Change);
        if (slot.IsAttribute())
        {
            chaos.driver.Bus().SendChanged(
                Announced(slot).get(),
                Json(json_loads(values.c_str(), 0, nullptr)).get());
        }
    }
}

void ChangeWatched(Chaos &chaos, Slot &slot)
{
    const char *watched = slot.kind->watched;
    Change(chaos, slot,
           *watched == '*' ? slot.kind->columns[chaos.Below(2)] : watched,
           false);
}

void Disappear(Chaos &chaos, Slot &slot, bool announce)
{
    slot.alive = false;
    chaos.world.Note(slot, "disappears");
    chaos.world.DoubtChildren(slot);
    chaos.driver.Do(slot.Command("delete", "remove") + R"(,"oids":[)" +
                    std::to_string(slot.oid) + "]" + Announce(announce) + "}");
    if (!announce)
    {
        return chaos.world.Doubt(slot);
    }
    chaos.world.Tell(slot, Told::Destroy);
    if (slot.IsAttribute())
    {
        chaos.driver.Bus().SendRemoved(Announced(slot).get());
    }
}

// Of some types the status isn't written: their reload runs, and looks at other
// columns.
void ChangeStatus(Chaos &chaos, Slot &slot)
{
    chaos.world.Tell(slot, Told::Change);
    if (slot.Is(kReloaded))
    {
        chaos.world.Doubt(slot);
        chaos.world.epoch.passRan = true;
    }
    chaos.driver.Do(slot.Command("status", "") + R"(,"status":)" +
                    std::to_string(chaos.Below(250)) + "}");
}

// A file comes, changes, is empty or is gone. The row isn't written from its
// attribute from then on.
void ChangeRawData(Chaos &chaos, Slot &slot)
{
    const std::string path = chaos.driver.Service().Root().Path() + "/raw" +
                             std::to_string(slot.oid);
    if (const uint32_t size = chaos.Below(200); size < 20)
    {
        std::filesystem::remove(path);
    }
    else
    {
        std::ofstream(path) << std::string(size - 20, 'r');
    }
    chaos.world.Note(slot, "raw data");
    chaos.world.Doubt(slot);
    chaos.driver.Bus().SendRawData(slot.key, path);
}

} // namespace

void SendList(Chaos &chaos, uint16_t type, const std::vector<uint32_t> &oids)
{
    std::string hex;
    for (const uint8_t byte : test::List(type, oids))
    {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", byte);
        hex += digits;
    }
    chaos.driver.Do(R"({"op":"event","hex":")" + hex + R"("})");
}

void Step(Chaos &chaos, Slot &slot, char step)
{
    switch (step)
    {
    case 'A':
    case 'a':
        return Appear(chaos, slot, step == 'A');
    case 'C':
    case 'c':
        return Change(chaos, slot, slot.kind->columns[chaos.Below(2)],
                      step == 'C');
    case 'D':
    case 'd':
        return Disappear(chaos, slot, step == 'D');
    case 'w':
        return ChangeWatched(chaos, slot);
    case '3':
        chaos.world.Tell(slot, Told::Change);
        return SendList(chaos, 3, {slot.oid});
    case '8':
        chaos.world.Tell(slot, Told::Destroy);
        return slot.IsAttribute()
                   ? chaos.driver.Bus().SendRemoved(Announced(slot).get())
                   : SendList(chaos, 8, {slot.oid});
    case '7':
        chaos.world.Tell(slot, Told::Create);
        return SendList(chaos, 7, {slot.oid});
    case 's':
        return ChangeStatus(chaos, slot);
    case 'r':
        return ChangeRawData(chaos, slot);
    default:
        std::abort();
    }
}

} // namespace qdb::chaos
