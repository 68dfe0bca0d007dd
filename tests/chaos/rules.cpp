// To add a rule: a line in kRules, and one in docs/chaos.md. The first that
// holds names the difference.
#include "tests/chaos/rules.h"

#include <algorithm>

namespace qdb::chaos
{
namespace
{

using audit::Kind;

// Of a row that should be there, with all that hangs on it.
bool IsMissing(const Case &c)
{
    return c.fate.alive && c.IsRowMissing() &&
           c.IsAny({Kind::MissingMapping, Kind::MissingRow,
                    Kind::MissingElement, Kind::MissingLink});
}

// Of a row that should have gone, with all that hangs on it.
bool IsExtra(const Case &c)
{
    return !c.fate.alive && c.IsAny({Kind::ExtraMapping, Kind::ExtraRow,
                                     Kind::ExtraElement, Kind::ExtraLink});
}

// Of the contents that a refresh writes.
bool IsContent(const Case &c)
{
    return c.fate.alive && !c.IsRowMissing() &&
           c.IsAny({Kind::Column, Kind::Element, Kind::MissingElement,
                    Kind::ExtraElement});
}

// Of what only the making of the row writes.
bool IsCreation(const Case &c)
{
    return c.fate.alive && !c.IsRowMissing() &&
           c.IsAny({Kind::CreationColumn, Kind::MissingLink});
}

// Passes bring the counts of these types together, unless there are no objects
// or as many rows too many as too few.
bool IsCounted(const Case &c)
{
    return c.afterPasses && c.slot.Has(kCounted) && c.type.living != 0 &&
           c.type.missing.size() != c.type.extra.size();
}

// Passes make these rows whatever has happened, but for types whose reload
// holds what it has seen: not until they change.
bool IsMade(const Case &c)
{
    return c.afterPasses && c.slot.Has(kMade) &&
           !(c.slot.Has(kReloaded) && c.fate.taken >= c.fate.changed);
}

// What of the object's fate allows for the difference.
Cause CauseOf(const Case &c)
{
    if (IsMissing(c) && c.fate.row != Held::Yes && !IsMade(c) && !IsCounted(c))
    {
        return c.fate.rowCause;
    }
    if (IsExtra(c) && c.fate.row != Held::No && !IsCounted(c))
    {
        return c.fate.rowCause;
    }
    if (!IsContent(c))
    {
        return Cause::None;
    }
    const Cause cause = c.fate.StaleCause(c.difference.column);
    const bool isSeen = c.afterPasses && c.slot.Watches(c.difference.column);
    return isSeen && cause != Cause::Crowd ? Cause::None : cause;
}

// Some epoch from the given one on for which `condition` holds.
template <typename Condition>
bool SinceThen(const Case &c, size_t epoch, Condition condition)
{
    const std::vector<Epoch> &epochs = c.world.epochs;
    return std::any_of(epochs.begin() + static_cast<ptrdiff_t>(epoch),
                       epochs.end(), condition);
}

bool WasIn(const Slot &slot, size_t epoch, What what)
{
    return std::ranges::any_of(slot.journal,
                               [=](const Entry &entry)
                               {
                                   return entry.epoch == epoch &&
                                          entry.what == what;
                               });
}

// --- The rules ---------------------------------------------------------------

template <Cause cause>
bool Has(const Case &c)
{
    return c.cause == cause;
}

bool IsRawDataKept(const Case &c)
{
    return IsContent(c) && c.fate.isRaw &&
           c.fate.StaleCause(c.difference.column) != Cause::None;
}

bool IsNewestFailNode(const Case &c)
{
    return c.cause == Cause::Kept && (c.isLastKept || !c.afterPasses);
}

bool IsNodeForgotten(const Case &c)
{
    return c.cause == Cause::Kept &&
           SinceThen(c, c.fate.kept,
                     [](const Epoch &epoch)
                     {
                         return epoch.passRan &&
                                epoch.fault == "ZOILGetObjByOID";
                     });
}

// One of the last passes took the row and couldn't make it again.
bool IsPassCutShort(const Case &c)
{
    constexpr int kLastEpochs = 4; // with something of a pass in them
    if (c.afterPasses || !IsMissing(c) || !c.slot.Has(kCounted | kMade))
    {
        return false;
    }
    int seen = 0;
    const auto isCutShort = [&](const Epoch &epoch)
    {
        return epoch.passRan && ++seen <= kLastEpochs &&
               (epoch.heldMs != 0 || epoch.fault == "ZOILGetObjByOID" ||
                epoch.fault == "ZOILListChildOIDByType");
    };
    return std::any_of(c.world.epochs.rbegin(), c.world.epochs.rend(),
                       isCutShort);
}

bool IsReloadBusy(const Case &c)
{
    return IsContent(c) && c.slot.Has(kMade) && c.slot.Has(kReloaded) &&
           SinceThen(c, c.fate.changed,
                     [](const Epoch &epoch)
                     {
                         return epoch.passRan && epoch.heldMs >= kLongHoldMs;
                     });
}

bool IsPastEnd(const Case &c)
{
    const auto index = static_cast<size_t>(c.difference.index);
    return IsContent(c) && c.difference.kind == Kind::ExtraElement &&
           index >= c.fate.length && index < c.fate.longest;
}

bool HasParentChanged(const Case &c)
{
    const std::vector<Slot> &slots = c.world.slots;
    const auto parent = std::ranges::find(slots, c.slot.Parent(), &Slot::oid);
    return IsCreation(c) && parent != slots.end() &&
           std::ranges::any_of(parent->journal,
                               [&](const Entry &entry)
                               {
                                   return entry.epoch >= c.fate.born &&
                                          (entry.what == What::Appear ||
                                           entry.what == What::Disappear ||
                                           entry.column == "Key");
                               });
}

// Whether `condition` holds for an epoch in which the row may have been made.
template <typename Condition>
bool WhileMade(const Case &c, Condition condition)
{
    const bool isMadeByPasses =
        c.slot.Has(kCounted | kMade | kReloaded) || c.fate.kept != 0;
    for (size_t epoch = c.fate.born; epoch < c.world.epochs.size(); ++epoch)
    {
        const bool isTold = WasIn(c.slot, epoch, What::ToldCreate) ||
                            WasIn(c.slot, epoch, What::Restored);
        const bool isPass = c.world.epochs[epoch].passRan && isMadeByPasses;
        if ((isTold || isPass) && condition(epoch))
        {
            return true;
        }
    }
    return false;
}

bool WasParentNotHad(const Case &c)
{
    constexpr const char *kCalls[] = {
        "CfgGroup_get_object", "ZOILDOGetObjKeyUTF8",     "ZOILGetObjByOID",
        "ZOILListParentOID",   "client_get_obj_body_ptr", "client_get_objects",
    };
    return IsCreation(c) &&
           WhileMade(c,
                     [&](size_t epoch)
                     {
                         return WasIn(c.slot, epoch, What::Disappear) ||
                                std::ranges::find(
                                    kCalls, c.world.epochs[epoch].fault) !=
                                    std::end(kCalls);
                     });
}

struct Rule
{
    const char *name;
    bool (*explains)(const Case &);
};

// clang-format off
constexpr Rule kRules[] = {
    // A row of raw data isn't written from its attribute any more.
    {"raw-data-kept", IsRawDataKept},
    // What appears, changes or goes without a word isn't seen.
    {"unannounced", Has<Cause::Silent>},
    // A create of an object whose row is there leaves the row as it is.
    {"known-object-keeps-row", Has<Cause::Known>},
    // Records of one object that are under way together are done in any order.
    {"unordered-events", Has<Cause::Crowd>},
    // What meets a failing platform call is lost, unless a pass looks again.
    {"failed-call", Has<Cause::Fault>},
    // A create that finds no room for its mapping, or a destroy that can't
    // read its row for a second, isn't done.
    {"busy-database", Has<Cause::Busy>},
    // A clearing takes all rows; events, passes and a load bring some back.
    {"detach-not-restored", Has<Cause::Cleared>},
    // A status change of some types has their reload run, and isn't written.
    {"status-not-written", Has<Cause::NotReread>},
    // The newest node stays in the fail queue until the next failure.
    {"newest-fail-node", IsNewestFailNode},
    // A node whose object can't be had when its turn comes is forgotten.
    {"forgotten-fail-node", IsNodeForgotten},
    // A pass that takes rows to make them anew, and then meets a failing call or
    // a busy database, leaves them to the next pass.
    {"pass-cut-short", IsPassCutShort},
    // A reload can't replace a row while the database is held, and has seen
    // the change.
    {"busy-reload", IsReloadBusy},
    // Elements past the end stay when an array becomes shorter.
    {"shorter-array", IsPastEnd},
    // The parent's key and the link are as the parent was when the row was made.
    {"parent-at-creation", HasParentChanged},
    // A parent that can't be had then, or isn't asked for since the object is
    // lost meanwhile, leaves no trace in the row.
    {"parent-not-had", WasParentNotHad},
};
// clang-format on

} // namespace

const char *RuleOf(Case c)
{
    c.cause = CauseOf(c);
    const auto rule = std::ranges::find_if(kRules,
                                           [&](const Rule &candidate)
                                           {
                                               return candidate.explains(c);
                                           });
    return rule == std::end(kRules) ? nullptr : rule->name;
}

} // namespace qdb::chaos
