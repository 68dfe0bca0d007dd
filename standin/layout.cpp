// Where the parts of an object lie.
#include "standin/layout.h"

#include "platform/zoil.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

namespace standin
{
namespace
{

using qdb::ArrayProperty;
using qdb::Column;
using qdb::FormKind;
using qdb::Source;

template <typename Entry>
const Entry *FindName(std::span<const Entry> entries, std::string_view name)
{
    const auto found = std::ranges::find(entries, name, &Entry::name);
    return found == entries.end() ? nullptr : &*found;
}

struct Range
{
    size_t begin;
    size_t end;

    bool Meets(const Range &other) const
    {
        return begin < other.end && other.begin < end;
    }
};

Range FieldOf(const Source &source)
{
    return {source.offset, source.offset + FieldSize(source)};
}

Range ElementsOf(const ArrayProperty &array)
{
    const size_t size = size_t{array.fixedCount} * array.table->recordSize;
    return {array.firstAt, array.firstAt + size};
}

// The bytes that a list takes among the fields: its offset, and what describes
// it.
Range ListOf(const Source &source)
{
    return {IsCellList(source) ? kEntryCountAt : source.offset - size_t{4},
            source.offset + FieldSize(source)};
}

} // namespace

const Column *FindColumn(std::span<const Column> columns, std::string_view name)
{
    return FindName(columns, name);
}

const Column *FindColumn(const qdb::Table &table, std::string_view name)
{
    const Column *column = FindName(table.columns, name);
    return column == nullptr && name == "slotType"
               ? FindName(table.columns, kNestedSlotType)
               : column;
}

const Column *ColumnAt(const qdb::Table &table, size_t offset)
{
    const auto found = std::ranges::find_if(
        table.columns,
        [offset](const Column &column)
        {
            return HasField(column.source) && column.source.offset == offset;
        });
    return found == table.columns.end() ? nullptr : &*found;
}

const ArrayProperty *FindArray(const qdb::Table &table, std::string_view name)
{
    return FindName(table.arrays, name);
}

const Column *KeyColumn(const qdb::Table &table)
{
    for (const char *name : {"key", "key_STR"})
    {
        for (const Column &column : table.columns)
        {
            if (strcasecmp(LeafName(column.name), name) == 0)
            {
                return &column;
            }
        }
    }
    return nullptr;
}

const char *LeafName(const char *columnName)
{
    constexpr char kSeparator[] = "_DOT_";
    while (const char *next = std::strstr(columnName, kSeparator))
    {
        columnName = next + std::strlen(kSeparator);
    }
    return columnName;
}

size_t FixedSize(const qdb::Table &table)
{
    size_t end = sizeof(DataObjHeader);
    for (const Column &column : table.columns)
    {
        const Source &source = column.source;
        end = std::max(end, KindOf(source.form) == FormKind::Text
                                ? source.offset + TextRoom(table, source.offset)
                                : FieldOf(source).end);
    }
    for (const ArrayProperty &array : table.arrays)
    {
        end = std::max(end, ElementsOf(array).end);
    }
    return end;
}

size_t FreeElements(const qdb::Table &table, const ArrayProperty &array)
{
    const Range elements = ElementsOf(array);
    size_t end = elements.end;
    for (const Column &column : table.columns)
    {
        const Range field = FieldOf(column.source);
        if (HasField(column.source) && field.Meets(elements))
        {
            end = std::min(end, std::max(field.begin, elements.begin));
        }
    }
    return (end - elements.begin) / array.table->recordSize;
}

bool IsFree(const qdb::Table &table, const Column &column)
{
    const Range field = FieldOf(column.source);
    const std::string_view leaf = LeafName(column.name);
    if (KindOf(column.source.form) != FormKind::Integer ||
        leaf.ends_with("xtFlags") ||
        field.begin < offsetof(DataObjHeader, objExtFlags) ||
        leaf == "protocol" || leaf == "slotType" || leaf == "attributes")
    {
        return false;
    }
    const auto isOfArray = [&](const ArrayProperty &array)
    {
        const auto meetsWord = [&](size_t at)
        {
            return at != 0 && field.Meets({at, at + 4});
        };
        return field.Meets(ElementsOf(array)) || meetsWord(array.countAt) ||
               meetsWord(array.offsetAt);
    };
    const auto isOfText = [&](const Column &other)
    {
        const Source &source = other.source;
        const FormKind kind = KindOf(source.form);
        const bool isNumber =
            kind == FormKind::Integer || kind == FormKind::Real;
        return !isNumber && HasField(source) &&
               field.Meets(kind == FormKind::List ? ListOf(source)
                                                  : FieldOf(source));
    };
    return std::ranges::none_of(table.arrays, isOfArray) &&
           std::ranges::none_of(table.columns, isOfText);
}

} // namespace standin
