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

// A row's integers as the reader of wide tables gives them: cut to 32 bits.
JsonPtr AsSignalled(const Table &table, const json_t *row);

// A row as signals must show it, tag and arrays included, read by a connection
// of its own; NULL when there is none or it can't be told in JSON.
JsonPtr SignalledRow(const std::string &database, const Table &table,
                     uint32_t oid);

// The columns of `after` that differ from `before`; of arrays the elements, as
// many as there were before.
JsonPtr Difference(const json_t *before, const json_t *after);

} // namespace qdb::test
