// The rules by which a row may differ from its object.
//
// A rule explains a difference only where the journal proves that its cause
// happened to that very object.
#pragma once

#include "tests/chaos/fate.h"
#include "tools/audit/audit.h"

#include <set>

namespace qdb::chaos
{

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
    const audit::Difference &difference;
    const Slot &slot;
    const Fate &fate;
    const World &world;
    const Type &type;
    bool afterPasses;
    bool isLastKept;           // nothing was put in the fail queue after it
    Cause cause = Cause::None; // set by RuleOf()

    bool IsAny(std::initializer_list<audit::Kind> kinds) const
    {
        return std::ranges::find(kinds, difference.kind) != kinds.end();
    }
    bool IsRowMissing() const
    {
        return type.missing.contains(difference.oid);
    }
};

// The name of the rule that explains the difference, or NULL.
const char *RuleOf(Case c);

} // namespace qdb::chaos
