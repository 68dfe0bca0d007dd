// Where the parts of an object lie: what follows from a table's column data
// alone.
#pragma once

#include "objects/schema/table.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace standin
{

inline constexpr std::string_view kOidColumn = "OID";
inline constexpr char kStatusColumn[] = "DOH_ObjStatus";
inline constexpr char kNestedSlotType[] = "emptySlotObj_DOT_slotType";

// Words that describe the cells of a list of values.
inline constexpr size_t kEntryCountAt = 0x46;
inline constexpr size_t kEntrySizeAt = 0x48;
inline constexpr size_t kDisplayEntrySizeAt = 0x4A;

// The column of that name; NULL: none. The table's "slotType" is the slot's
// kind also where it is nested.
const qdb::Column *FindColumn(std::span<const qdb::Column> columns,
                              std::string_view name);
const qdb::Column *FindColumn(const qdb::Table &table, std::string_view name);

// The column whose field begins at the offset; NULL: none.
const qdb::Column *ColumnAt(const qdb::Table &table, size_t offset);

const qdb::ArrayProperty *FindArray(const qdb::Table &table,
                                    std::string_view name);

// The column that holds the object's key, by its name; NULL: the type has none.
const qdb::Column *KeyColumn(const qdb::Table &table);

// The last part of a column's name, behind the structures that it is nested in.
const char *LeafName(const char *columnName);

// Bytes of the object up to the texts behind its fields. Arrays of a counted
// length are left out.
size_t FixedSize(const qdb::Table &table);

// How many elements of an array of fixed length can be set without touching a
// field.
size_t FreeElements(const qdb::Table &table, const qdb::ArrayProperty &array);

// An integer column that load may change at will: one that describes neither
// the object's structure nor the table that it belongs to, shares no byte with
// a text, and isn't part of the header.
bool IsFree(const qdb::Table &table, const qdb::Column &column);

} // namespace standin
