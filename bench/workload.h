// What is measured: operations on three sets of objects.
//
// Both sides have a stand-in of their own, and the operations below keep its
// objects; they send no event. As an object's contents follow from its OID and
// the steps alone, both sides write the same rows.
#pragma once

#include "tools/dmctl/json.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qdb::bench
{

enum class Action
{
    Populate, // without signals
    Create,
    RefreshChanged, // one column differs
    RefreshSame,    // none does
    Delete,
    DestroyBunch, // one event for all
};

enum class Set
{
    Population, // of all types that come from the Data Manager
    OneType,
    TwentyTypes,
};

struct Step
{
    Action action;
    Set set;
    uint32_t first; // place in the set; 0 for the population
    uint32_t count;
    uint32_t value; // of the changed column; another one for every step
};

// Signals that one operation sends, 1 or 0.
constexpr uint32_t SignalsOf(Action action)
{
    return action == Action::Populate || action == Action::RefreshSame ? 0 : 1;
}

// The OIDs of a step's objects, in the order of its events.
std::vector<uint32_t> OidsOf(const Step &step);

// The table of the set of one type, and the column that its steps change.
struct Measured
{
    const char *table;
    const char *column;
};
Measured OneType();

// Every object but the first of the population has one parent, which has a row
// of its own.
struct Parent
{
    uint32_t oid;
    const char *key;
};

// NULL for the object that has none.
const Parent *ParentOf(uint16_t type, uint32_t oid);

// The operations of the control socket that bring a stand-in to where the
// step's events find it.
Json OperationsFor(const Step &step);

// The operation that sends the step's events, so many a second; 0: as fast as
// the listener takes them.
json_t *AnnouncementOf(const Step &step, int perSecond);

} // namespace qdb::bench
