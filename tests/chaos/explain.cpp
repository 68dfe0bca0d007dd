#include "tests/chaos/explain.h"

#include "tests/chaos/rules.h"

#include <algorithm>

namespace qdb::chaos
{
namespace
{

using audit::Difference;
using audit::Kind;

class Explanation
{
  public:
    Explanation(const audit::Report &report, const World &world,
                bool afterPasses)
        : report_(report), world_(world), afterPasses_(afterPasses)
    {
        for (const Slot &slot : world.slots)
        {
            const Fate fate = FateOf(slot, world.epochs);
            known_[slot.Stored()] = {&slot, fate};
            lastKept_ = std::max(lastKept_, fate.surelyKept);
            types_[slot.kind->type].living += slot.alive ? 1u : 0u;
        }
        for (const Difference &difference : report.differences)
        {
            Type &type = types_[difference.type];
            if (difference.kind == Kind::MissingRow)
            {
                type.missing.insert(difference.oid);
            }
            if (difference.kind == Kind::ExtraRow)
            {
                type.extra.insert(difference.oid);
            }
        }
    }

    Explained Run()
    {
        for (const Difference &difference : report_.differences)
        {
            const char *rule = Explain(difference);
            if (rule == nullptr)
            {
                result_.unexplained.push_back(difference);
            }
            else if (told_.insert({difference.oid, rule}).second)
            {
                ++result_.counts[rule];
            }
        }
        FindEarlyRows();
        return result_;
    }

  private:
    struct Known
    {
        const Slot *slot;
        Fate fate;
    };

    const char *Explain(const Difference &difference)
    {
        const auto found = known_.find(difference.oid);
        if (found == known_.end())
        {
            return nullptr;
        }
        const auto &[slot, fate] = found->second;
        const bool isLastKept = fate.kept >= lastKept_ &&
                                (newest_ == 0 || newest_ == difference.oid);
        const char *rule =
            RuleOf({difference, *slot, fate, world_, types_[slot->kind->type],
                    afterPasses_, isLastKept});
        // After passes there is but one newest.
        if (rule != nullptr && rule == std::string("newest-fail-node") &&
            afterPasses_)
        {
            newest_ = difference.oid;
        }
        return rule;
    }

    // Rows that are as they should be, but can't be there.
    void FindEarlyRows()
    {
        for (const auto &[oid, known] : known_)
        {
            const uint32_t type = known.slot->kind->type;
            if (known.slot->alive && known.fate.row == Held::No &&
                !types_[type].missing.contains(oid))
            {
                result_.unexplained.push_back({oid, Kind::ExtraRow, type, "",
                                               "", -1, "", "no row yet",
                                               "a row"});
            }
        }
    }

    const audit::Report &report_;
    const World &world_;
    const bool afterPasses_;
    std::map<int64_t, Known> known_; // by OID
    std::map<uint32_t, Type> types_;
    size_t lastKept_ = 0;
    int64_t newest_ = 0;
    std::set<std::pair<int64_t, std::string>> told_; // OID and rule
    Explained result_;
};

} // namespace

Explained Explain(const audit::Report &report, const World &world,
                  bool afterPasses)
{
    return Explanation(report, world, afterPasses).Run();
}

} // namespace qdb::chaos
