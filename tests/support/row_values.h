// Values for every column of a table, and what its row must then hold.
//
// Each column gets a value of its own, so that a row whose columns are swapped
// or shifted cannot look right. Columns that share bytes with another one are
// left to what the object's bytes say.
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
JsonPtr ValuesFor(const RowData &row, ValueSet set);

// The row that an object of these values and bytes must have, without its tag:
// every column of the table, and arrays as readers of signals see them. The
// parent's key may be NULL.
JsonPtr ExpectedRow(const RowData &row, const json_t *values,
                    const std::vector<uint8_t> &bytes, const char *parentKey);

// A row as its table holds it, read by a connection of its own, without its
// tag; NULL when there is none.
JsonPtr TableRow(const std::string &database, const Table &table, uint32_t oid);

} // namespace qdb::test
