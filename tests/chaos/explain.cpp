// To add a rule: a line in kRules, and one in docs/chaos.md. The first that
// holds names the difference.
#include "tests/chaos/explain.h"

#include "tests/chaos/fate.h"

#include <algorithm>
#include <set>

namespace qdb::chaos
{
namespace
{

using audit::Difference;
using audit::Kind;

// What the objects of a type and the rows of its table have in common.
struct Type
{
    size_t living = 0;
    std::set<int64_t> missing = {}; // objects without a row
    std::set<int64_t> extra = {};   // rows without an object
};

// Everything about one difference.
struct Case
{
    const Difference &difference;
    const Slot &slot;
    const Fate &fate;
    const World &world;
    const Type &type;
    bool afterPasses;
    bool isLastKept; // nothing was put in the fail queue after it
    Cause cause = Cause::None;

    bool IsAny(std::initializer_list<Kind> kinds) const
    {
        return std::ranges::find(kinds, difference.kind) != kinds.end();
    }
    bool IsRowMissing() const
    {
        return type.missing.contains(difference.oid);
    }
};

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

bool WasLostWhileMade(const Case &c)
{
    return IsCreation(c) &&
           WhileMade(c,
                     [&](size_t epoch)
                     {
                         return WasIn(c.slot, epoch, What::Disappear);
                     });
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
                         return std::ranges::find(
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
    // A reload can't replace a row while the database is held, and has seen
    // the change.
    {"busy-reload", IsReloadBusy},
    // Elements past the end stay when an array becomes shorter.
    {"shorter-array", IsPastEnd},
    // The parent's key and the link are as the parent was when the row was made.
    {"parent-at-creation", HasParentChanged},
    // A parent that can't be had then leaves no trace in the row.
    {"parent-not-had", WasParentNotHad},
    // Nor has an object parents that is lost while its row is made.
    {"lost-while-made", WasLostWhileMade},
};
// clang-format on

// --- The report --------------------------------------------------------------

struct Known
{
    const Slot *slot;
    Fate fate;
};

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

std::map<uint32_t, Type> TypesOf(const audit::Report &report,
                                 const World &world)
{
    std::map<uint32_t, Type> types;
    for (const Slot &slot : world.slots)
    {
        types[slot.kind->type].living += slot.alive ? 1u : 0u;
    }
    for (const Difference &difference : report.differences)
    {
        Type &type = types[difference.type];
        if (difference.kind == Kind::MissingRow)
        {
            type.missing.insert(difference.oid);
        }
        if (difference.kind == Kind::ExtraRow)
        {
            type.extra.insert(difference.oid);
        }
    }
    return types;
}

} // namespace

Explained Explain(const audit::Report &report, const World &world,
                  bool afterPasses)
{
    std::map<uint32_t, Type> types = TypesOf(report, world);
    std::map<int64_t, Known> known; // by OID
    size_t lastKept = 0;
    for (const Slot &slot : world.slots)
    {
        const Fate fate = FateOf(slot, world.epochs);
        lastKept = std::max(lastKept, fate.surelyKept);
        known[slot.Stored()] = {&slot, fate};
    }
    Explained result;
    std::set<std::pair<int64_t, std::string>> counted; // OID and rule
    int64_t newest = 0; // there is but one newest fail node
    for (const Difference &difference : report.differences)
    {
        const auto found = known.find(difference.oid);
        if (found == known.end())
        {
            result.unexplained.push_back(difference);
            continue;
        }
        const auto &[slot, fate] = found->second;
        const bool isLastKept =
            fate.kept >= lastKept && (newest == 0 || newest == difference.oid);
        const char *rule =
            RuleOf({difference, *slot, fate, world, types[slot->kind->type],
                    afterPasses, isLastKept});
        if (rule == nullptr)
        {
            result.unexplained.push_back(difference);
            continue;
        }
        newest = std::string(rule) == "newest-fail-node" && afterPasses
                     ? difference.oid
                     : newest;
        result.counts[rule] += counted.insert({difference.oid, rule}).second;
    }
    for (const auto &[oid, object] : known)
    {
        const uint32_t type = object.slot->kind->type;
        if (object.slot->alive && object.fate.row == Held::No &&
            !types[type].missing.contains(oid))
        {
            result.unexplained.push_back({oid, audit::Kind::ExtraRow, type, "",
                                          "", -1, "", "no row yet", "a row"});
        }
    }
    return result;
}

} // namespace qdb::chaos
