// What the database must hold of an object, worked out from its bytes and the
// column lists alone.
//
// Shares no code with the service: what this file and the service's binder
// agree on has been read twice.
#pragma once

#include "objects/schema/rows.h"
#include "tools/audit/content.h"
#include "tools/audit/value.h"

#include <optional>
#include <vector>

namespace qdb::audit
{

// The row of the catalogue that mirrors the object; NULL when none does: types
// without a table, hard disks' SMART data, and attributes that the Data
// Manager claims to have.
const ObjTypeRow *RowOf(const Object &object, const ObjectBytes &bytes);

// Whether the row never shows the column, though its objects fill it.
bool IsWithheld(const ObjTypeRow &row, const Column &column);

// The value of a field; `base` is added to its offset. Nothing when the field
// leads outside of what an object may hold, so that the object can't be
// mirrored as it stands. Not for the parent's key, which no field holds.
std::optional<Value> FieldOf(const ObjectBytes &bytes, const Source &source,
                             uint64_t base = 0);

// The value of a column of the object's row; the rest as FieldOf().
std::optional<Value> ColumnOf(const ObjectBytes &bytes, const ObjTypeRow &row,
                              const Column &column);

// One element of an array property: the columns of its side table.
using Element = std::vector<Value>;

// All elements of a property, in order.
std::vector<Element> ElementsOf(const ObjectBytes &bytes,
                                const ArrayProperty &property);

} // namespace qdb::audit
