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
Json Told(const Slot &slot)
{
    return Json(json_pack("{s:s,s:s,s:s,s:I}", "interface",
                          slot.kind->interface, "key", slot.key.c_str(), "path",
                          standin::AttributePath(slot.key).c_str(), "oid",
                          json_int_t{slot.oid}));
}

void Appear(Chaos &chaos, Slot &slot, bool announce)
{
    slot.alive = true;
    chaos.world.Note(slot, What::Appear);
    std::string command = chaos.world.Creation(slot);
    command.insert(command.size() - 1, Announce(announce));
    chaos.driver.Do(command);
    if (announce)
    {
        chaos.world.Note(slot, What::ToldCreate);
        if (slot.IsAttribute())
        {
            chaos.driver.Bus().SendAdded(Told(slot).get());
        }
    }
}

void Change(Chaos &chaos, Slot &slot, const char *column, bool announce)
{
    const std::string name = NameOf(column);
    const bool isArray = name == NameOf(slot.kind->array);
    const size_t length = isArray ? 1 + chaos.Below(8) : 0;
    const std::string values = "{" +
                               (isArray ? chaos.world.FreshArray(slot, length)
                                        : chaos.world.Fresh(column)) +
                               "}";
    // An array brings its count along.
    chaos.world.Note(slot, What::Change, isArray ? "*" : name, length);
    chaos.driver.Do(slot.Command("set", "attribute") + R"(,"values":)" +
                    values + Announce(announce) + "}");
    if (announce)
    {
        chaos.world.Note(slot, What::ToldDirty);
        if (slot.IsAttribute())
        {
            chaos.driver.Bus().SendChanged(
                Told(slot).get(),
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
    chaos.world.Note(slot, What::Disappear);
    chaos.driver.Do(slot.Command("delete", "remove") + R"(,"oids":[)" +
                    std::to_string(slot.oid) + "]" + Announce(announce) + "}");
    if (announce)
    {
        chaos.world.Note(slot, What::ToldDestroy);
        if (slot.IsAttribute())
        {
            chaos.driver.Bus().SendRemoved(Told(slot).get());
        }
    }
}

void ChangeStatus(Chaos &chaos, Slot &slot)
{
    chaos.world.Note(slot, What::Change, "DOH_ObjStatus");
    chaos.world.Note(slot, What::ToldStatus);
    if (slot.Has(kReloaded))
    {
        chaos.world.epochs.back().passRan = true;
    }
    chaos.driver.Do(slot.Command("status", "") + R"(,"status":)" +
                    std::to_string(chaos.Below(250)) + "}");
}

// A file comes, changes, is empty or is gone.
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
    chaos.world.Note(slot, What::ToldRaw);
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
        chaos.world.Note(slot, What::ToldDirty);
        return SendList(chaos, 3, {slot.oid});
    case '7':
        chaos.world.Note(slot, What::ToldCreate);
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
