// To add a rule: a predicate, and a line in kRules. The first that holds names
// the difference.
#include "tests/chaos/explain.h"

#include <algorithm>
#include <set>

namespace qdb::chaos
{
namespace
{

using audit::Difference;
using audit::Kind;

constexpr char kNewestFailNode[] = "newest-fail-node";

// Everything about one difference.
struct Case
{
    const Difference &difference;
    const Slot &slot;
    const Fate &fate;
    const Journal &journal;
    const World &world;
    bool afterPasses;
    bool rowIsMissing;  // the whole of it
    size_t missingRows; // objects of this type without a row
    size_t extraRows;   // rows of this type without an object
    bool isLastKept;    // nothing was put in the fail queue after it
    bool isEmptyType;   // there are no objects of this type
};

bool IsAny(const Difference &difference, std::initializer_list<Kind> kinds)
{
    return std::ranges::find(kinds, difference.kind) != kinds.end();
}

// Of a row that should be there, with all that hangs on it.
bool IsMissing(const Case &c)
{
    return c.fate.alive && c.rowIsMissing &&
           IsAny(c.difference, {Kind::MissingMapping, Kind::MissingRow,
                                Kind::MissingElement, Kind::MissingLink});
}

// Of a row that should have gone, with all that hangs on it.
bool IsExtra(const Case &c)
{
    return !c.fate.alive &&
           IsAny(c.difference, {Kind::ExtraMapping, Kind::ExtraRow,
                                Kind::ExtraElement, Kind::ExtraLink});
}

// Of the contents that a refresh writes.
bool IsContent(const Case &c)
{
    return c.fate.alive && !c.rowIsMissing &&
           IsAny(c.difference, {Kind::Column, Kind::Element,
                                Kind::MissingElement, Kind::ExtraElement});
}

// Of what only the making of the row writes.
bool IsCreation(const Case &c)
{
    return c.fate.alive && !c.rowIsMissing &&
           IsAny(c.difference, {Kind::CreationColumn, Kind::MissingLink});
}

// Passes bring the counts of these types together, unless there are no objects
// or as many rows too many as too few.
bool IsCounted(const Case &c)
{
    return c.afterPasses && c.slot.Has(kCounted) && !c.isEmptyType &&
           c.missingRows != c.extraRows;
}

// Passes make these rows whatever has happened, but for types whose reload
// holds what it has seen: not until they change.
bool IsMade(const Case &c)
{
    return c.afterPasses && c.slot.Has(kMade) &&
           !(c.slot.Has(kReloaded) && c.fate.taken >= c.fate.changed);
}

bool Lacks(const Case &c, Cause cause)
{
    return IsMissing(c) && c.fate.row != Held::Yes &&
           c.fate.rowCause == cause && !IsMade(c) && !IsCounted(c);
}

bool Keeps(const Case &c, Cause cause)
{
    return IsExtra(c) && c.fate.row != Held::No && c.fate.rowCause == cause &&
           !IsCounted(c);
}

bool IsOlder(const Case &c, Cause cause)
{
    return IsContent(c) && c.fate.StaleCause(c.difference.column) == cause;
}

bool IsUnwatchedOlder(const Case &c, Cause cause)
{
    return IsOlder(c, cause) &&
           !(c.afterPasses && c.slot.Watches(c.difference.column));
}

// Some epoch from the given one on for which `condition` holds.
template <typename Condition>
bool SinceThen(const Case &c, size_t epoch, Condition condition)
{
    const std::vector<Epoch> &epochs = c.journal.Epochs();
    return std::any_of(epochs.begin() + static_cast<ptrdiff_t>(epoch),
                       epochs.end(), condition);
}

// --- The rules ---------------------------------------------------------------

bool IsNodeForgotten(const Case &c)
{
    return SinceThen(c, c.fate.kept,
                     [](const Epoch &epoch)
                     {
                         return epoch.passRan &&
                                epoch.fault == "ZOILGetObjByOID";
                     });
}

bool IsReloadBusy(const Case &c)
{
    return c.slot.Has(kMade) && c.slot.Has(kReloaded) &&
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
    const auto parent =
        std::ranges::find(c.world.slots, c.slot.Parent(), &Slot::oid);
    const auto changes = [&](const Entry &entry)
    {
        return entry.epoch >= c.fate.born &&
               (entry.what == What::Appear || entry.what == What::Disappear ||
                entry.column == "Key");
    };
    return parent != c.world.slots.end() &&
           std::ranges::any_of(c.journal.Of(*parent), changes);
}

bool WasLostSinceBorn(const Case &c)
{
    return std::ranges::any_of(c.journal.Of(c.slot),
                               [&](const Entry &entry)
                               {
                                   return entry.epoch >= c.fate.born &&
                                          entry.what == What::Disappear;
                               });
}

bool WasParentNotHad(const Case &c)
{
    constexpr const char *kCalls[] = {
        "CfgGroup_get_object", "ZOILDOGetObjKeyUTF8",     "ZOILGetObjByOID",
        "ZOILListParentOID",   "client_get_obj_body_ptr", "client_get_objects",
    };
    return SinceThen(c, c.fate.born,
                     [&](const Epoch &epoch)
                     {
                         return std::ranges::find(kCalls, epoch.fault) !=
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
    // A clearing takes all rows; events, passes and a load bring some back.
    {"detach-not-restored", [](const Case &c) { return Lacks(c, Cause::Cleared); }},
    // What nobody announces isn't found.
    {"never-announced", [](const Case &c) { return Lacks(c, Cause::Silent); }},
    // What goes unannounced leaves its row.
    {"gone-unannounced", [](const Case &c) { return Keeps(c, Cause::Silent) && !c.isEmptyType; }},
    // A list without objects changes nothing.
    {"empty-list", [](const Case &c) { return Keeps(c, Cause::Silent) && c.isEmptyType; }},
    // The newest node stays in the fail queue until the next failure.
    {kNewestFailNode, [](const Case &c) { return Lacks(c, Cause::Kept) && (c.isLastKept || !c.afterPasses); }},
    // A node whose object can't be had when its turn comes is forgotten.
    {"forgotten-fail-node", [](const Case &c) { return Lacks(c, Cause::Kept) && IsNodeForgotten(c); }},
    // A row of raw data isn't written from its attribute any more.
    {"raw-data-kept", [](const Case &c) { return c.fate.isRaw && IsContent(c) && c.fate.StaleCause(c.difference.column) != Cause::None; }},
    // A change that nobody announces isn't seen, but for watched columns.
    {"silent-change", [](const Case &c) { return IsUnwatchedOlder(c, Cause::Silent); }},
    // A create of an object whose row is there leaves the row as it is.
    {"known-object-keeps-row", [](const Case &c) { return IsUnwatchedOlder(c, Cause::Known); }},
    // A status change of some types has their reload run, and isn't written.
    {"status-not-written", [](const Case &c) { return IsUnwatchedOlder(c, Cause::NotReread); }},
    // Elements past the end stay when an array becomes shorter.
    {"shorter-array", IsPastEnd},
    // The parent's key and the link are as the parent was when the row was made.
    {"parent-at-creation", [](const Case &c) { return IsCreation(c) && HasParentChanged(c); }},
    // A parent that can't be had then leaves no trace in the row.
    {"parent-not-had", [](const Case &c) { return IsCreation(c) && WasParentNotHad(c); }},
    // Nor has an object parents that is lost while its row is made.
    {"lost-while-made", [](const Case &c) { return IsCreation(c) && WasLostSinceBorn(c); }},
    // Records of one object that are under way together are done in any order.
    {"unordered-events", [](const Case &c) { return Lacks(c, Cause::Crowd) || Keeps(c, Cause::Crowd) || IsOlder(c, Cause::Crowd); }},
    // What meets a failing platform call is lost, unless a pass looks again.
    {"failed-call", [](const Case &c) { return Lacks(c, Cause::Fault) || Keeps(c, Cause::Fault) || IsUnwatchedOlder(c, Cause::Fault); }},
    // A mapping that isn't free at once isn't waited for.
    {"busy-create", [](const Case &c) { return Lacks(c, Cause::Busy); }},
    // A destroy that can't read the row for a second leaves it.
    {"busy-destroy", [](const Case &c) { return Keeps(c, Cause::Busy); }},
    // Nor can a reload then replace a row, and it has seen the change.
    {"busy-reload", [](const Case &c) { return IsContent(c) && IsReloadBusy(c); }},
};
// clang-format on

// --- The report --------------------------------------------------------------

class Explanation
{
  public:
    Explanation(const audit::Report &report, const World &world,
                const Journal &journal, bool afterPasses)
        : report_(report), world_(world), journal_(journal),
          afterPasses_(afterPasses)
    {
        for (const Slot &slot : world.slots)
        {
            fates_[slot.Stored()] = {&slot, FateOf(slot, journal)};
            lastKept_ =
                std::max(lastKept_, fates_[slot.Stored()].fate.surelyKept);
            living_[slot.kind->type] += slot.alive ? 1u : 0u;
        }
        for (const Difference &difference : report.differences)
        {
            if (difference.kind == Kind::MissingRow)
            {
                missing_[difference.type].insert(difference.oid);
            }
            if (difference.kind == Kind::ExtraRow)
            {
                extra_[difference.type].insert(difference.oid);
            }
        }
    }

    Explained Run()
    {
        Explained result;
        for (const Difference &difference : report_.differences)
        {
            const char *rule = RuleOf(difference);
            if (rule == nullptr)
            {
                result.unexplained.push_back(difference);
            }
            else
            {
                result.counts[rule] +=
                    told_.insert({difference.oid, rule}).second;
            }
        }
        return result;
    }

  private:
    struct Known
    {
        const Slot *slot;
        Fate fate;
    };

    const char *RuleOf(const Difference &difference)
    {
        const auto found = fates_.find(difference.oid);
        if (found == fates_.end())
        {
            return nullptr;
        }
        const auto &[slot, fate] = found->second;
        const uint16_t type = slot->kind->type;
        const bool isLast = fate.kept >= lastKept_ &&
                            (newest_ == 0 || newest_ == difference.oid);
        const Case c = {difference,
                        *slot,
                        fate,
                        journal_,
                        world_,
                        afterPasses_,
                        missing_[type].contains(difference.oid),
                        missing_[type].size(),
                        extra_[type].size(),
                        isLast,
                        living_[type] == 0};
        for (const Rule &rule : kRules)
        {
            if (rule.explains(c))
            {
                // There is but one newest.
                newest_ =
                    rule.name == kNewestFailNode ? difference.oid : newest_;
                return rule.name;
            }
        }
        return nullptr;
    }

    const audit::Report &report_;
    const World &world_;
    const Journal &journal_;
    const bool afterPasses_;
    std::map<int64_t, Known> fates_;
    std::map<uint32_t, std::set<int64_t>> missing_; // by type
    std::map<uint32_t, std::set<int64_t>> extra_;
    std::map<uint32_t, size_t> living_; // by type
    size_t lastKept_ = 0;
    int64_t newest_ = 0;
    std::set<std::pair<int64_t, std::string>> told_; // OID and rule
};

} // namespace

Explained Explain(const audit::Report &report, const World &world,
                  const Journal &journal, bool afterPasses)
{
    return Explanation(report, world, journal, afterPasses).Run();
}

} // namespace qdb::chaos
