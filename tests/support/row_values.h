// Values for every column of a table.
//
// Each column gets a value of its own, so that a row whose columns are swapped
// or shifted cannot look right.
#pragma once

#include "core/json.h"
#include "objects/schema/rows.h"

namespace qdb::test
{

// Two sets of values that differ in every column.
enum class ValueSet
{
    First,
    Second,
};

// Values for the builder: columns, arrays and lists, so that the object takes
// the given row of its type.
JsonPtr ValuesFor(const ObjTypeRow &row, ValueSet set);

} // namespace qdb::test
