#include "tests/chaos/world.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace qdb::chaos
{
namespace
{

constexpr size_t kFirstLength = 3; // of an array

std::string Numbered(std::string text, uint32_t number)
{
    const size_t at = text.find("{n}");
    return at == std::string::npos
               ? text
               : text.replace(at, 3, std::to_string(number));
}

} // namespace

std::string NameOf(const char *column)
{
    const std::string name = *column == '#' ? column + 1 : column;
    return name.substr(0, name.find(':'));
}

bool Slot::Is(unsigned traits) const
{
    const unsigned has =
        kind->traits | (IsAttribute() ? kAttribute : kObject) |
        (alive ? kAlive : kAbsent) |
        (alive && (kind->traits & kFixed) == 0 ? kRemovable : 0u) |
        (alive && *kind->watched != '\0' ? kWatched : 0u);
    return (has & traits) == traits;
}

std::string Slot::Command(const char *forObject, const char *forAttribute) const
{
    const std::string id = R"(","oid":)" + std::to_string(oid);
    return !IsAttribute() ? R"({"op":")" + std::string(forObject) + id
                          : R"({"op":")" + std::string(forAttribute) +
                                R"(","interface":")" + kind->interface +
                                R"(","key":")" + key + id;
}

uint32_t Slot::Parent() const
{
    const uint32_t number = oid - kind->first;
    return kind->parentCount == 0 ? 0
                                  : kind->parent + number % kind->parentCount;
}

World::World()
{
    for (const Kind &kind : kKinds)
    {
        for (uint32_t i = 0; i < kind.count; ++i)
        {
            slots.push_back({&kind, kind.first + i,
                             kind.interface == nullptr
                                 ? ""
                                 : Numbered(kind.values, i + 1)});
        }
    }
}

void World::Note(Slot &slot, const std::string &line)
{
    slot.journal.push_back("epoch " + std::to_string(epochs) + ": " + line);
}

void World::Tell(Slot &slot, Told what)
{
    constexpr const char *kNames[] = {"", "created", "changed", "destroyed"};
    Note(slot, std::string("told: ") + kNames[static_cast<size_t>(what)]);
    const bool isAlone = slot.told == Told::Nothing ||
                         (slot.told == what && what == Told::Change);
    slot.told = isAlone ? what : Told::Several;
    // Whatever the row was, it goes.
    slot.isDoubted =
        slot.isDoubted && !(isAlone && what == Told::Destroy && !slot.alive);
}

void World::Doubt(Slot &slot)
{
    slot.isExact = false;
    slot.isDoubted = true;
}

void World::DoubtChildren(const Slot &slot)
{
    for (Slot &child : slots)
    {
        if (child.alive && child.Parent() == slot.oid)
        {
            Doubt(child);
        }
    }
}

void World::EndEpoch()
{
    // What met a fault is done all the same, unless the books tell otherwise.
    const bool isFaulty = epoch.heldMs != 0 || !epoch.fault.empty();
    const bool isLeft = epoch.cleared || (isFaulty && epoch.gaveUp);
    std::set<uint16_t> moved; // types
    for (const Slot &slot : slots)
    {
        if (slot.told != Told::Nothing || slot.isDoubted)
        {
            moved.insert(slot.kind->type);
        }
    }
    for (Slot &slot : slots)
    {
        // A pass that meets a change, or a fault, may leave what it does to
        // rows of the type to the next one.
        const bool metPass =
            epoch.passRan && slot.Is(kPassed) &&
            (isFaulty || epoch.cleared || moved.contains(slot.kind->type));
        const bool wasTold = slot.told != Told::Nothing;
        const bool isLost = wasTold && epoch.flooded && slot.IsAttribute();
        if (metPass || slot.isDoubted || slot.told == Told::Several ||
            (wasTold && isLeft) || isLost)
        {
            slot.isExact = false;
        }
        else if (slot.told == Told::Destroy)
        {
            slot.isExact = true; // there is nothing
        }
        if (wasTold && (isFaulty || epoch.cleared || epoch.passRan || isLost))
        {
            Note(slot, std::string(epoch.passRan ? "[pass]" : "") +
                           (epoch.cleared ? "[cleared]" : "") +
                           (epoch.heldMs == 0 ? "" : "[held]") +
                           (isLost ? "[flood]" : "") +
                           (isFaulty && !isLeft ? "[all done]" : "") +
                           epoch.fault);
        }
        slot.told = Told::Nothing;
        slot.isDoubted = false;
    }
    epoch = {};
    ++epochs;
}

const Slot *World::Find(int64_t storedOid) const
{
    const auto slot = std::ranges::find(slots, storedOid, &Slot::Stored);
    return slot == slots.end() ? nullptr : &*slot;
}

std::string World::PrintJournal(int64_t storedOid) const
{
    constexpr size_t kPrinted = 20;
    const Slot *slot = Find(storedOid);
    if (slot == nullptr)
    {
        return "no such object: " + std::to_string(storedOid) + "\n";
    }
    char head[32];
    std::snprintf(head, sizeof(head), "journal of 0x%08X:\n", slot->oid);
    std::string text = head;
    const size_t count = slot->journal.size();
    for (size_t i = count - std::min(count, kPrinted); i < count; ++i)
    {
        text += "  " + slot->journal[i] + "\n";
    }
    return text;
}

std::string World::Fresh(const char *column)
{
    // Numbers fit in a signed byte, and are never the 10 that a run begins
    // with.
    const std::string mark = std::to_string(++mark_);
    return '"' + NameOf(column) + "\":" +
           (*column == '#' ? std::to_string(11 + mark_ % 100)
                           : "\"v" + mark + '"');
}

std::string World::FreshArray(Slot &slot, size_t length)
{
    slot.length = length;
    const std::string array = slot.kind->array;
    const size_t colon = array.find(':');
    std::string list;
    for (size_t i = 0; i < length; ++i)
    {
        const std::string number = std::to_string(++mark_ % 100);
        list += list.empty() ? "" : ",";
        list += colon == std::string::npos
                    ? number
                    : "{\"" + array.substr(colon + 1) + "\":" + number + '}';
    }
    return '"' + NameOf(slot.kind->array) + "\":[" + list + ']';
}

std::string World::Values(Slot &slot)
{
    const Kind &kind = *slot.kind;
    std::string values = slot.IsAttribute()
                             ? R"("Name":"chaos")"
                             : Numbered(kind.values, slot.oid - kind.first + 1);
    for (const char *column : kind.columns)
    {
        if (NameOf(column) != NameOf(kind.array))
        {
            values += "," + Fresh(column);
        }
    }
    if (*kind.array != '\0')
    {
        values += "," + FreshArray(slot, kFirstLength);
    }
    if (*kind.watched != '\0' && *kind.watched != '*')
    {
        // What a pass sees first it never takes for a change again.
        values += "," + (begun_ || *kind.watched != '#'
                             ? Fresh(kind.watched)
                             : '"' + NameOf(kind.watched) + "\":10");
    }
    return "{" + values + "}";
}

std::string World::Creation(Slot &slot)
{
    const uint32_t parent = slot.Parent() == 0 ? 1 : slot.Parent();
    return slot.Command("create", "attribute") + R"(,"type":)" +
           std::to_string(slot.kind->type) + R"(,"parents":[)" +
           std::to_string(parent) + R"(],"values":)" + Values(slot) + "}";
}

std::string World::Scenario()
{
    std::string objects;
    std::string attributes;
    for (Slot &slot : slots)
    {
        std::string &list = slot.IsAttribute() ? attributes : objects;
        list += (list.empty() ? "" : ",") + Creation(slot);
    }
    begun_ = true;
    return R"({"objects":[)" + objects + R"(],"attributes":[)" + attributes +
           "]}";
}

} // namespace qdb::chaos
