#include "tests/chaos/world.h"

#include <algorithm>
#include <cstdio>

namespace qdb::chaos
{
namespace
{

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

unsigned Slot::Traits() const
{
    return kind->traits | (IsAttribute() ? kAttribute : kObject) |
           (alive ? kAlive : kAbsent) |
           (alive && (kind->traits & kFixed) == 0 ? kRemovable : 0u) |
           (alive && *kind->watched != '\0' ? kWatched : 0u);
}

bool Slot::Has(unsigned traits) const
{
    return (Traits() & traits) != 0;
}

bool Slot::Is(unsigned traits) const
{
    return (Traits() & traits) == traits;
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

bool Slot::Watches(const std::string &column) const
{
    const std::string watched = NameOf(kind->watched);
    return watched == "*" || (!watched.empty() && watched == column);
}

World::World()
{
    for (const Kind &kind : kKinds)
    {
        for (uint32_t i = 0; i < kind.count; ++i)
        {
            const bool isAttribute = kind.interface != nullptr;
            slots.push_back({&kind, kind.first + i,
                             isAttribute ? Numbered(kind.values, i + 1) : ""});
            Note(slots.back(), What::Appear);
            Note(slots.back(), What::ToldCreate);
        }
    }
}

void World::Note(Slot &slot, What what, const std::string &column,
                 size_t length)
{
    slot.journal.push_back({epochs.size() - 1, what, column, length});
}

std::string World::PrintJournal(int64_t storedOid) const
{
    constexpr size_t kPrinted = 30;
    constexpr const char *kNames[] = {
        "appears",     "changes",      "disappears",    "told: create",
        "told: dirty", "told: status", "told: destroy", "told: raw data",
        "cleared",     "restored",
    };
    const auto slot = std::ranges::find(slots, storedOid, &Slot::Stored);
    if (slot == slots.end())
    {
        return "no such object: " + std::to_string(storedOid) + "\n";
    }
    char head[32];
    std::snprintf(head, sizeof(head), "journal of 0x%08X:\n", slot->oid);
    std::string text = head;
    const size_t count = slot->journal.size();
    for (size_t i = count - std::min(count, kPrinted); i < count; ++i)
    {
        const Entry &entry = slot->journal[i];
        const Epoch &epoch = epochs[entry.epoch];
        text += "  epoch " + std::to_string(entry.epoch) + ": " +
                kNames[static_cast<size_t>(entry.what)] + " " + entry.column +
                (epoch.passRan ? " [pass]" : "") +
                (epoch.fault.empty() ? "" : " [" + epoch.fault + " fails]") +
                (epoch.heldMs == 0
                     ? ""
                     : " [held " + std::to_string(epoch.heldMs) + " ms]") +
                "\n";
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

std::string World::FreshArray(const Slot &slot, size_t length)
{
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

std::string World::Values(const Slot &slot)
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

std::string World::Creation(const Slot &slot)
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
    for (const Slot &slot : slots)
    {
        std::string &list = slot.IsAttribute() ? attributes : objects;
        list += (list.empty() ? "" : ",") + Creation(slot);
    }
    begun_ = true;
    return R"({"objects":[)" + objects + R"(],"attributes":[)" + attributes +
           "]}";
}

} // namespace qdb::chaos
