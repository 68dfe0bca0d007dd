#include "tests/chaos/journal.h"

#include <algorithm>

namespace qdb::chaos
{
namespace
{

constexpr size_t kPrinted = 40;

constexpr const char *kNames[] = {
    "appears",     "changes",      "disappears",    "told: create",
    "told: dirty", "told: status", "told: destroy", "told: raw data",
    "cleared",     "restored",
};

} // namespace

Journal::Journal(const World &world)
{
    for (const Slot &slot : world.slots)
    {
        Add(slot, What::Appear);
        Add(slot, What::ToldCreate);
    }
}

void Journal::Add(const Slot &slot, What what, const std::string &column,
                  size_t number)
{
    entries_[slot.oid].push_back({Number(), what, column, number});
}

std::string Journal::Print(const Slot &slot) const
{
    const std::vector<Entry> &entries = Of(slot);
    std::string text;
    for (size_t i = entries.size() - std::min(entries.size(), kPrinted);
         i < entries.size(); ++i)
    {
        const Epoch &epoch = epochs_[entries[i].epoch];
        text += "  epoch " + std::to_string(entries[i].epoch) + ": " +
                kNames[static_cast<size_t>(entries[i].what)] + " " +
                entries[i].column + (epoch.passRan ? " [pass]" : "") +
                (epoch.fault.empty() ? "" : " [" + epoch.fault + " fails]") +
                (epoch.heldMs == 0
                     ? ""
                     : " [held " + std::to_string(epoch.heldMs) + " ms]") +
                "\n";
    }
    return text;
}

} // namespace qdb::chaos
