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

// Whether passes may work on the object.
bool IsTouchedByPasses(const Slot &slot, const Fate &fate)
{
    return slot.Has(kCounted | kMade | kReloaded) ||
           *slot.kind->watched != '\0' ||
           (slot.Has(kKept) && fate.row != Held::Yes);
}

// Whether passes may make a row at any time, promised or not: what was once put
// in the fail queue may still be there.
bool IsMadeByPasses(const Slot &slot, const Fate &fate)
{
    return slot.Has(kCounted | kMade) || fate.kept != 0 ||
           (slot.Has(kReloaded) && slot.Has(kKept));
}

// --- What happens to the object ----------------------------------------------

void Come(const Group &group, Fate *pFate)
{
    pFate->alive = true;
    pFate->changed = group.number;
    pFate->length = kFirstLength;
    pFate->longest = std::max(pFate->longest, pFate->length);
    if (pFate->row == Held::No)
    {
        pFate->rowCause = Cause::Silent;
    }
    else
    {
        pFate->stale[kAll] = Cause::Known;
    }
}

void ChangeColumn(const Group &group, const Entry &entry, Fate *pFate)
{
    pFate->changed = group.number;
    pFate->length = entry.number != 0 ? entry.number : pFate->length;
    pFate->longest = std::max(pFate->longest, pFate->length);
    if (pFate->row != Held::No)
    {
        pFate->stale[entry.column] = pFate->isRaw ? Cause::Raw : Cause::Silent;
    }
}

void Go(Fate *pFate)
{
    pFate->alive = false;
    if (pFate->row != Held::No)
    {
        pFate->rowCause = Cause::Silent;
    }
}

bool HappensToObject(const Group &group, const Entry &entry, Fate *pFate)
{
    switch (entry.what)
    {
    case What::Appear:
        Come(group, pFate);
        return true;
    case What::Change:
        ChangeColumn(group, entry, pFate);
        return true;
    case What::Disappear:
        Go(pFate);
        return true;
    default:
        return false;
    }
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

void Make(const Group &group, Fate *pFate)
{
    // An object that is lost before it is read makes no row.
    const bool isLost = group.Has(What::Disappear);
    if (!pFate->alive || pFate->row == Held::Yes)
    {
        return;
    }
    if (pFate->row == Held::No)
    {
        pFate->stale.clear();
        pFate->born = group.number;
    }
    pFate->row = isLost ? Held::Maybe : Held::Yes;
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
void Write(const Group &group, bool fetches, Fate *pFate)
{
    if (!pFate->alive || (fetches && group.Has(What::Disappear)))
    {
        return;
    }
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

void TellStatus(const Group &group, Fate *pFate)
{
    if (!group.slot.Has(kReloaded))
    {
        Write(group, false, pFate);
    }
    else if (pFate->row != Held::No)
    {
        pFate->stale["DOH_ObjStatus"] = Cause::NotReread;
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
        return Write(group, true, pFate);
    case What::ToldStatus:
        return TellStatus(group, pFate);
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
        if (!HappensToObject(group, entry, pFate))
        {
            Tell(group, entry.what, pFate);
        }
    }
}

// --- What the service was told at once, or while a call failed ---------------

// Columns that the group touches, and older ones that no full refresh mended.
void AgeColumns(const Group &group, bool isMended, Cause cause, Fate *pFate)
{
    if (isMended)
    {
        pFate->stale.clear();
    }
    for (const Entry &entry : group.entries)
    {
        HappensToObject(group, entry, pFate);
        if (entry.what == What::Change || entry.what == What::Appear)
        {
            pFate->stale[entry.what == What::Change ? entry.column : kAll] =
                cause;
        }
        else if (entry.what == What::ToldRaw)
        {
            pFate->isRaw = true;
        }
        else if (entry.what == What::ToldStatus && group.slot.Has(kReloaded))
        {
            pFate->stale["DOH_ObjStatus"] = Cause::NotReread;
        }
    }
}

void ReplayCrowd(const Group &group, Cause cause, Fate *pFate)
{
    const bool makes = group.Has(What::ToldCreate) || group.Has(What::Restored);
    const bool takes = group.Has(What::ToldDestroy) || group.Has(What::Cleared);
    const bool writes =
        group.Has(What::ToldDirty) ||
        (group.Has(What::ToldStatus) && !group.slot.Has(kReloaded));
    const bool isCertain = pFate->alive && !group.Has(What::Disappear) &&
                           !takes && cause == Cause::Crowd;
    const Held before = pFate->row;
    AgeColumns(group,
               isCertain && writes && before == Held::Yes && !pFate->isRaw,
               cause, pFate);
    if (takes)
    {
        pFate->taken = group.number;
    }
    pFate->born = before == Held::No ? group.number : pFate->born;
    const bool isKept =
        writes && group.slot.Has(kKept) && (takes || before != Held::Yes);
    if (isKept)
    {
        pFate->kept = group.number;
    }
    if (isCertain && makes)
    {
        pFate->row = Held::Yes;
    }
    else if (makes || takes || isKept)
    {
        const bool isOnlyKept = !makes && !takes && cause == Cause::Crowd;
        pFate->row = Held::Maybe;
        pFate->rowCause = isOnlyKept ? Cause::Kept : cause;
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
    const bool isTouched = IsTouchedByPasses(group.slot, *pFate);
    size_t told = 0;
    bool isBroken = false;
    for (const Entry &entry : group.entries)
    {
        told += IsTold(entry.what) ? 1u : 0u;
        isBroken = isBroken || Breaks(group.epoch.fault, entry.what,
                                      group.slot.IsAttribute());
    }
    const bool isCrowd =
        told + (isTouched && group.epoch.passRan ? 1u : 0u) > 1;
    if (told > 0 && (isCrowd || isBroken))
    {
        ReplayCrowd(group, isBroken ? Cause::Fault : Cause::Crowd, pFate);
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

// Records that come after a detach are queued after its clearing; so it ends a
// group, unless something was under way before.
static size_t EndOfGroup(const Slot &slot, std::span<const Entry> entries,
                         size_t begin)
{
    size_t told = 0;
    size_t end = begin;
    while (end < entries.size() && entries[end].epoch == entries[begin].epoch)
    {
        told += IsTold(entries[end].what) ? 1u : 0u;
        const bool isClearing = entries[end].what == What::Cleared;
        ++end;
        if (isClearing && told == 1 && !slot.IsAttribute())
        {
            const bool isRestored =
                end < entries.size() && entries[end].what == What::Restored;
            return isRestored ? end + 1 : end;
        }
    }
    return end;
}

Fate FateOf(const Slot &slot, const Journal &journal)
{
    const std::span<const Entry> entries = journal.Of(slot);
    Fate fate;
    for (size_t begin = 0; begin < entries.size();)
    {
        const size_t number = entries[begin].epoch;
        const size_t end = EndOfGroup(slot, entries, begin);
        Replay({slot, journal.Epochs()[number], number,
                entries.subspan(begin, end - begin)},
               &fate);
        begin = end;
    }
    return fate;
}

} // namespace qdb::chaos
