// Values for every column of a table, and rows as other processes see them.
//
// Each column gets a value of its own, so that a row whose columns are swapped
// or shifted cannot look right.
#pragma once

#include "core/json.h"
#include "db/statement.h"
#include "objects/schema/rows.h"

#include <cstdint>
#include <string>
#include <vector>

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

// A row as signals must show it, tag and arrays included, read by a connection
// of its own; NULL when there is none or it can't be told in JSON.
JsonPtr SignalledRow(const std::string &database, const Table &table,
                     uint32_t oid);

// The columns of `after` that differ from `before`; of arrays the elements, as
// many as there were before.
JsonPtr Difference(const json_t *before, const json_t *after);

} // namespace qdb::test
