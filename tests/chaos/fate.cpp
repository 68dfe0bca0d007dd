// Replays a journal, epoch by epoch. Invariants:
// 1. `row` is Yes or No only where every order of events ends so.
// 2. A column leaves `stale` only when the row was written, or made, from an
//    object that is as new as the last change.
// 3. What only makes the row better than promised is left out: the audit then
//    finds no difference that would need a cause.
#include "tests/chaos/fate.h"

#include <algorithm>
#include <span>

namespace qdb::chaos
{
namespace
{

constexpr char kAll[] = "*";
constexpr char kStatus[] = "DOH_ObjStatus";

// The entries of one object in one epoch.
struct Group
{
    const Slot &slot;
    const Epoch &epoch;
    size_t number;
    std::span<const Entry> entries;

    bool Has(What what) const
    {
        return std::ranges::find(entries, what, &Entry::what) != entries.end();
    }
};

// Whether what was told may have had no effect, since the call failed on its
// way.
bool Breaks(const std::string &call, What what, bool isAttribute)
{
    if (call.empty())
    {
        return false;
    }
    const bool fetches = what == What::ToldCreate || what == What::ToldDirty;
    if (isAttribute && what != What::ToldRaw)
    {
        return fetches && (call.ends_with("Attribute_get_object") ||
                           call == "client_get_objects");
    }
    return (call == "ZOAllocMem") || (fetches && call == "ZOILGetObjByOID") ||
           (what == What::ToldStatus && call == "ZOILGetObjByKey");
}

// Whether passes may work on the object. What was once put in the fail queue
// may still be there, whatever has become of its row since.
bool IsTouchedByPasses(const Slot &slot, const Fate &fate)
{
    return slot.Has(kCounted | kMade | kReloaded) ||
           *slot.kind->watched != '\0' ||
           (slot.Has(kKept) && fate.row != Held::Yes) || fate.kept != 0;
}

// Whether passes may make a row at any time, promised or not.
bool IsMadeByPasses(const Slot &slot, const Fate &fate)
{
    return slot.Has(kCounted | kMade) || fate.kept != 0 ||
           (slot.Has(kReloaded) && slot.Has(kKept));
}

// --- What happens to the object ----------------------------------------------

// `cause`: of columns that become older by it.
void Happen(const Group &group, const Entry &entry, Cause cause, Fate *pFate)
{
    switch (entry.what)
    {
    case What::Appear:
        pFate->alive = true;
        pFate->changed = group.number;
        pFate->length = kFirstLength;
        pFate->rowCause =
            pFate->row == Held::No ? Cause::Silent : pFate->rowCause;
        pFate->stale[kAll] = cause == Cause::Silent ? Cause::Known : cause;
        break;
    case What::Change:
        pFate->changed = group.number;
        pFate->length = entry.length != 0 ? entry.length : pFate->length;
        pFate->stale[entry.column] = cause;
        break;
    case What::Disappear:
        pFate->alive = false;
        pFate->rowCause =
            pFate->row == Held::No ? pFate->rowCause : Cause::Silent;
        break;
    default:
        break;
    }
    pFate->longest = std::max(pFate->longest, pFate->length);
}

// --- What the service was told, alone ----------------------------------------

// The row is gone; what comes next is new.
void Take(const Group &group, Cause cause, Fate *pFate)
{
    pFate->row = Held::No;
    pFate->rowCause = cause;
    pFate->stale.clear();
    pFate->taken = group.number;
    pFate->isRaw = false;
    pFate->longest = pFate->length;
}

// Whether the object may be there, or surely is, whenever the service looks for
// it within the epoch.
bool MayBeFound(const Group &group, const Fate &fate)
{
    return fate.alive || group.Has(What::Appear);
}

bool IsSurelyFound(const Group &group, const Fate &fate)
{
    return fate.alive && !group.Has(What::Disappear);
}

void Make(const Group &group, Fate *pFate)
{
    if (!MayBeFound(group, *pFate) || pFate->row == Held::Yes)
    {
        return;
    }
    if (pFate->row == Held::No)
    {
        pFate->stale.clear();
        pFate->born = group.number;
    }
    pFate->row = IsSurelyFound(group, *pFate) ? Held::Yes : Held::Maybe;
    pFate->rowCause = Cause::Silent;
    // A mapping isn't waited for that isn't free at once.
    if (group.epoch.heldMs != 0)
    {
        pFate->row = Held::Maybe;
        pFate->rowCause = group.slot.Has(kKept) ? Cause::Kept : Cause::Busy;
        pFate->kept = group.slot.Has(kKept) ? group.number : pFate->kept;
    }
}

// A refresh from an object that is as new as the last change.
void Write(const Group &group, Fate *pFate)
{
    if (pFate->row != Held::Yes && group.slot.Has(kKept))
    {
        pFate->surelyKept =
            pFate->row == Held::No ? group.number : pFate->surelyKept;
        pFate->row = Held::Maybe;
        pFate->rowCause = Cause::Kept;
        pFate->kept = group.number;
    }
    if (!pFate->isRaw)
    {
        pFate->stale.clear();
    }
}

void Refresh(const Group &group, Fate *pFate)
{
    if (IsSurelyFound(group, *pFate))
    {
        return Write(group, pFate);
    }
    if (MayBeFound(group, *pFate) && pFate->row == Held::No &&
        group.slot.Has(kKept))
    {
        pFate->row = Held::Maybe;
        pFate->kept = group.number;
    }
}

void Destroy(const Group &group, Fate *pFate)
{
    if (group.epoch.heldMs < kLongHoldMs)
    {
        Take(group, Cause::Silent, pFate);
    }
    else if (pFate->row != Held::No)
    {
        pFate->row = Held::Maybe;
        pFate->rowCause = Cause::Busy;
        pFate->taken = group.number;
    }
}

void Tell(const Group &group, What what, Fate *pFate)
{
    switch (what)
    {
    case What::ToldCreate:
    case What::Restored:
        return Make(group, pFate);
    case What::ToldDirty:
        return Refresh(group, pFate);
    case What::ToldStatus:
        if (group.slot.Has(kReloaded))
        {
            pFate->stale[kStatus] = Cause::NotReread;
            return;
        }
        return Write(group, pFate);
    case What::ToldDestroy:
        return Destroy(group, pFate);
    case What::ToldRaw:
        pFate->isRaw = pFate->isRaw || pFate->row != Held::No;
        return;
    case What::Cleared:
        return Take(group, Cause::Cleared, pFate);
    default:
        return;
    }
}

void ReplayAlone(const Group &group, Fate *pFate)
{
    for (const Entry &entry : group.entries)
    {
        Happen(group, entry, Cause::Silent, pFate);
        Tell(group, entry.what, pFate);
    }
}

// --- What the service was told at once, or while a call failed ---------------

void ReplayCrowd(const Group &group, Cause cause, Fate *pFate)
{
    const bool makes = group.Has(What::ToldCreate) || group.Has(What::Restored);
    const bool takes = group.Has(What::ToldDestroy) || group.Has(What::Cleared);
    const bool isStatusWritten =
        group.Has(What::ToldStatus) && !group.slot.Has(kReloaded);
    const bool writes = group.Has(What::ToldDirty) || isStatusWritten;
    const bool isCertain = pFate->alive && !group.Has(What::Disappear) &&
                           !takes && cause == Cause::Crowd;
    const Held before = pFate->row;
    if (isCertain && writes && before == Held::Yes && !pFate->isRaw)
    {
        pFate->stale.clear(); // of what was before
    }
    for (const Entry &entry : group.entries)
    {
        Happen(group, entry, cause, pFate);
    }
    if (group.Has(What::ToldStatus) && !isStatusWritten)
    {
        pFate->stale[kStatus] = Cause::NotReread;
    }
    pFate->isRaw = pFate->isRaw || group.Has(What::ToldRaw);
    pFate->taken = takes ? group.number : pFate->taken;
    pFate->born = before == Held::No ? group.number : pFate->born;
    const bool isKept =
        writes && group.slot.Has(kKept) && (takes || before != Held::Yes);
    pFate->kept = isKept ? group.number : pFate->kept;
    if (isCertain && makes)
    {
        pFate->row = Held::Yes;
    }
    else if (makes || takes || isKept)
    {
        const bool isOnlyKept = !makes && !takes && cause == Cause::Crowd;
        pFate->row = Held::Maybe;
        pFate->rowCause = !isOnlyKept    ? cause
                          : pFate->alive ? Cause::Kept
                                         : Cause::Silent;
    }
}

// Whether the last that was told came behind all that happened.
bool EndsTold(const Group &group)
{
    return !group.entries.empty() && group.entries.back().IsTold();
}

// What was told at once has an order all the same: the row ends as it would if
// the last had been told alone. Nothing else was at work on the object.
void Settle(const Group &group, Held before, Fate *pFate)
{
    constexpr What kUnordered[] = {What::Cleared, What::Restored,
                                   What::ToldRaw};
    if (!EndsTold(group) || group.epoch.heldMs != 0 || pFate->isRaw ||
        std::ranges::any_of(kUnordered,
                            [&](What what)
                            {
                                return group.Has(what);
                            }))
    {
        return;
    }
    const What last = group.entries.back().what;
    const bool isReplaced = group.Has(What::ToldDestroy);
    if (last == What::ToldDestroy && !pFate->alive)
    {
        Take(group, Cause::Silent, pFate);
    }
    else if (last == What::ToldCreate && pFate->alive && isReplaced)
    {
        pFate->row = Held::Yes;
        pFate->stale.clear();
    }
    else if ((last == What::ToldDirty ||
              (last == What::ToldStatus && !group.slot.Has(kReloaded))) &&
             pFate->alive && before == Held::Yes && !isReplaced)
    {
        pFate->stale.clear();
    }
}

// What passes may do at any time.
void ReplayPasses(const Group &group, Fate *pFate)
{
    const bool wasThere =
        pFate->alive || (group.Has(What::Appear) && group.Has(What::Disappear));
    if (pFate->row == Held::No && wasThere &&
        IsMadeByPasses(group.slot, *pFate))
    {
        pFate->row = Held::Maybe;
        pFate->born = group.number;
    }
    if (pFate->row == Held::Yes && !pFate->alive &&
        group.slot.Has(kMade | kCounted))
    {
        pFate->row = Held::Maybe;
    }
}

void Replay(const Group &group, Fate *pFate)
{
    if (pFate->row == Held::No)
    {
        pFate->stale.clear(); // whoever makes it sees what is there now
    }
    const auto told = std::ranges::count_if(group.entries, &Entry::IsTold);
    const bool isBroken =
        std::ranges::any_of(group.entries,
                            [&](const Entry &entry)
                            {
                                return Breaks(group.epoch.fault, entry.what,
                                              group.slot.IsAttribute());
                            });
    const bool meetsPass =
        group.epoch.passRan && IsTouchedByPasses(group.slot, *pFate);
    const bool isCrowd = told > 1 || (told == 1 && meetsPass);
    if (isCrowd || isBroken)
    {
        const Held before = pFate->row;
        ReplayCrowd(group, isBroken ? Cause::Fault : Cause::Crowd, pFate);
        if (!isBroken && !meetsPass)
        {
            Settle(group, before, pFate);
        }
    }
    else
    {
        ReplayAlone(group, pFate);
    }
    ReplayPasses(group, pFate);
}

} // namespace

Cause Fate::StaleCause(const std::string &column) const
{
    for (const std::string &name : {column, std::string(kAll)})
    {
        if (const auto found = stale.find(name); found != stale.end())
        {
            return found->second;
        }
    }
    return Cause::None;
}

Fate FateOf(const Slot &slot, const std::vector<Epoch> &epochs)
{
    Fate fate;
    const std::span<const Entry> entries = slot.journal;
    for (size_t begin = 0, end = 0; begin < entries.size(); begin = end)
    {
        const size_t number = entries[begin].epoch;
        while (end < entries.size() && entries[end].epoch == number)
        {
            ++end;
        }
        Replay(
            {slot, epochs[number], number, entries.subspan(begin, end - begin)},
            &fate);
    }
    return fate;
}

} // namespace qdb::chaos
