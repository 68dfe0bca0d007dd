// A database table: its columns, and its array properties with the side tables
// that hold their elements.
#pragma once

#include "objects/schema/column.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace qdb
{

// Holds one row per element of an array property, keyed by the owner's OID,
// the property's name (PROP) and the element's index (ARR_INDEX).
struct SideTable
{
    const char *name;
    std::span<const Column> columns; // beside the key; offsets within a record
    uint16_t recordSize;             // bytes from one element to the next
};

// Where the elements of an array property lie in the object. Fields that are 0
// are not used: the count is either fixed or a 32-bit word of the object, and
// the elements begin at a fixed place or where a 32-bit word says, counted from
// byte 0x1C.
struct ArrayProperty
{
    const char *name; // of the main table's column
    const SideTable *table;
    uint16_t fixedCount;
    uint16_t countAt;
    uint16_t firstAt;
    uint16_t offsetAt;
};

struct Table
{
    const char *name;
    std::span<const Column> columns; // in the order of the INSERT
    std::span<const ArrayProperty> arrays;
};

// Bytes from the inline text at `offset` to whatever begins behind it: a field,
// or an array that lies inside the object; 64 for a text that is the last.
constexpr size_t TextRoom(const Table &table, size_t offset)
{
    constexpr size_t kLastTextRoom = 64;
    size_t room = RoomBehind(table.columns, offset, SIZE_MAX);
    for (const ArrayProperty &array : table.arrays)
    {
        const size_t begin = array.firstAt;
        room = begin > offset ? std::min(room, begin - offset) : room;
    }
    return room == SIZE_MAX ? kLastTextRoom : room;
}

// Bytes from the text at `offset` of a side table's record to the next field,
// or to the record's end.
constexpr size_t TextRoom(const SideTable &side, size_t offset)
{
    return RoomBehind(side.columns, offset, side.recordSize - offset);
}

// SQLite calls a function with at most 127 arguments, 63 pairs for
// json_object. A table that has more columns, its tag included, is read with
// SELECT * instead.
inline constexpr size_t kMaxJsonFields = 63;

constexpr bool ReadsWithSelectStar(const Table &table)
{
    return table.columns.size() + 1 > kMaxJsonFields;
}

} // namespace qdb
