#include "tests/support/row_values.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

namespace qdb::test
{
namespace
{

// Counts, sizes, offsets and kinds that the object's structure needs as they
// are; the builder sets them from the lists and arrays.
constexpr std::string_view kStructural[] = {
    "ObjTypeCount",        "entry_count",     "entry_size",
    "display_entry_size",  "numDNSServer",    "numGatewayAddr",
    "numIPv4Addrs",        "numIPv6Addrs",    "numPhysicalNetFQDDs",
    "pendingValuePresent", "nicTeamInfoSize",
};

bool IsStructural(const Column &column)
{
    return std::ranges::find(kStructural, std::string_view(column.name)) !=
           std::end(kStructural);
}

size_t End(const Source &source)
{
    return source.offset + FieldSize(source);
}

bool SharesBits(const Source &a, const Source &b)
{
    return a.form == Form::Bits && b.form == Form::Bits &&
           (a.bit + a.width <= b.bit || b.bit + b.width <= a.bit);
}

// Whether the column's bytes also belong to a column in front of it, or to an
// array.
bool IsShared(const Table &table, const Column &column)
{
    for (const Column &other : table.columns)
    {
        if (&other == &column)
        {
            break;
        }
        if (Overlap(column.source, other.source) &&
            !SharesBits(column.source, other.source))
        {
            return true;
        }
    }
    return std::ranges::any_of(
        table.arrays,
        [&](const ArrayProperty &property)
        {
            const size_t end =
                property.firstAt +
                size_t{property.fixedCount} * property.table->recordSize;
            // A text may run on into the array, too.
            return property.fixedCount != 0 && HasField(column.source) &&
                   End(column.source) > property.firstAt &&
                   column.source.offset < end;
        });
}

constexpr size_t kLongestText = 12;

std::string TextOf(size_t index, ValueSet set, size_t room)
{
    std::string text =
        (set == ValueSet::First ? "a" : "b") + std::to_string(index);
    return text.substr(0, room);
}

// Whether a text column lies over this one: its bytes must stay ASCII then.
bool LiesUnderText(const Table &table, const Source &source)
{
    return std::ranges::any_of(table.columns,
                               [&](const Column &other)
                               {
                                   return other.source.form == Form::Text &&
                                          Overlap(other.source, source);
                               });
}

// The numbers of the integer forms, in their order: a set begins with `first`
// or `second`, and each column goes on from there by its index.
constexpr struct
{
    int64_t first;
    int64_t second;
    int64_t count;
    int64_t step; // of the second set
} kNumbers[] = {
    {1, 121, 120, 1},                                   // U8
    {1000, 65000, INT64_MAX, 1},                        // U16
    {100000, 4000000000, INT64_MAX, 1},                 // U32
    {int64_t{1} << 40, int64_t{1} << 61, INT64_MAX, 1}, // U64
    {1, -1, 100, -1},                                   // I8
    {1000, -1000, INT64_MAX, -1},                       // I16
    {100000, -100000, INT64_MAX, -1},                   // I32
};

int64_t IntegerOf(const Source &source, size_t index, ValueSet set, bool ascii)
{
    const auto i = static_cast<int64_t>(index);
    const bool first = set == ValueSet::First;
    if (ascii)
    {
        return (first ? 0x31313101 : 0x32323201) + i % 100;
    }
    if (source.form == Form::Bits)
    {
        return first ? 1 : (int64_t{1} << source.width) - 2;
    }
    const auto &numbers = kNumbers[static_cast<size_t>(source.form)];
    return first ? numbers.first + i % numbers.count
                 : numbers.second + numbers.step * (i % numbers.count);
}

json_t *ListOf(Join join, ValueSet set)
{
    const bool isAddresses = join == Join::DnsServers || join == Join::Gateways;
    const std::vector<std::string> stems =
        isAddresses
            ? std::vector<std::string>{"2001:db8::", "192.0.2.", "198.51.100."}
            : std::vector<std::string>{"one", "two"};
    json_t *list = json_array();
    for (const std::string &stem : stems)
    {
        const std::string text = stem + (set == ValueSet::First ? "1" : "2");
        json_array_append_new(list, json_string(text.c_str()));
    }
    return list;
}

json_t *ColumnValue(const Table &table, size_t index, ValueSet set)
{
    const Column &column = table.columns[index];
    const Source &source = column.source;
    switch (KindOf(source.form))
    {
    case FormKind::None:
        return nullptr;
    case FormKind::Real:
        return json_real(static_cast<double>(index) +
                         (set == ValueSet::First ? 0.5 : 0.25));
    case FormKind::Text:
        return json_string(
            TextOf(index, set,
                   std::min(kLongestText, TextRoom(table, source.offset) - 1))
                .c_str());
    case FormKind::WordText:
        return json_string(TextOf(index, set, kLongestText).c_str());
    case FormKind::List:
        return ListOf(source.join, set);
    case FormKind::Integer:
        break;
    }
    return json_integer(
        IntegerOf(source, index, set, LiesUnderText(table, source)));
}

json_t *ElementValue(const SideTable &table, size_t index, ValueSet set)
{
    // The last status byte is the first byte of the FQDD's offset word.
    if (&table == &kHealthStatusSide && index == 19)
    {
        return json_integer(0);
    }
    // Small, so that a text that runs into an array stays valid UTF-8.
    const auto value = static_cast<json_int_t>(
        (set == ValueSet::First ? 33 : 70) + index % 30);
    if (table.columns.size() == 1)
    {
        return json_integer(value);
    }
    json_t *record = json_object();
    json_int_t shift = 0;
    for (const Column &column : table.columns)
    {
        json_object_set_new(
            record, column.name,
            column.source.form == Form::Text
                ? json_string(("10.0.0." + std::to_string(value)).c_str())
                : json_integer(value + shift++));
    }
    return record;
}

void AddArrays(const Table &table, ValueSet set, json_t *values)
{
    for (const ArrayProperty &property : table.arrays)
    {
        json_t *elements = json_array();
        const size_t count = property.countAt == 0 ? property.fixedCount : 3;
        for (size_t i = 0; i < count; ++i)
        {
            json_array_append_new(elements,
                                  ElementValue(*property.table, i, set));
        }
        json_object_set_new(values, property.name, elements);
    }
}

// What makes an object of a two-row type take this row.
void AddKind(const ObjTypeRow &row, json_t *values)
{
    if (row.table == &kTblRAID_PDSmartData_NVMe)
    {
        json_object_set_new(values, "protocol", json_integer(0x40));
    }
    else if (row.table == &kTblRAID_PDSmartData_SAS_SATA)
    {
        json_object_set_new(values, "protocol", json_integer(0x20));
        json_object_set_new(values, "attributes", json_integer(2));
    }
    else if (row.table == &kTblRAID_EmptySlot)
    {
        json_object_del(values, "emptySlotObj_DOT_slotType");
        json_object_set_new(values, "slotType", json_integer(7));
    }
}

} // namespace

JsonPtr ValuesFor(const ObjTypeRow &row, ValueSet set)
{
    const Table &table = *row.table;
    JsonPtr values(json_object());
    for (size_t i = 0; i < table.columns.size(); ++i)
    {
        const Column &column = table.columns[i];
        if (std::strcmp(column.name, "OID") == 0 || IsStructural(column) ||
            IsShared(table, column))
        {
            continue;
        }
        if (json_t *value = ColumnValue(table, i, set))
        {
            json_object_set_new(values.get(), column.name, value);
        }
    }
    AddArrays(table, set, values.get());
    AddKind(row, values.get());
    return values;
}

} // namespace qdb::test
