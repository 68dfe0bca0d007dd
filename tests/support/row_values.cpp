#include "tests/support/row_values.h"

#include "tests/support/temp_root.h"
#include "tools/audit/expected.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstring>

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

int64_t IntegerOf(const Source &source, size_t index, ValueSet set, bool ascii)
{
    const auto i = static_cast<int64_t>(index);
    const bool first = set == ValueSet::First;
    if (ascii)
    {
        return (first ? 0x31313101 : 0x32323201) + i % 100;
    }
    switch (source.form)
    {
    case Form::U8:
        return i % 120 + (first ? 1 : 121);
    case Form::I8:
        return first ? i % 100 + 1 : -(i % 100) - 1;
    case Form::U16:
        return first ? 1000 + i : 65000 + i;
    case Form::I16:
        return first ? 1000 + i : -1000 - i;
    case Form::U32:
        return first ? 100000 + i : int64_t{4000000000} + i;
    case Form::I32:
        return first ? 100000 + i : -100000 - i;
    case Form::U64:
        return (int64_t{1} << (first ? 40 : 61)) + i;
    default: // Bits
        return first ? 1 : (int64_t{1} << source.width) - 2;
    }
}

json_t *ListOf(Join join, ValueSet set)
{
    const char *tail = set == ValueSet::First ? "1" : "2";
    json_t *list = json_array();
    const auto add = [&](const std::string &text)
    {
        json_array_append_new(list, json_string((text + tail).c_str()));
    };
    if (join == Join::DnsServers || join == Join::Gateways)
    {
        add("2001:db8::");
        add("192.0.2.");
        add("198.51.100.");
    }
    else
    {
        add("one");
        add("two");
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

// --- What is there -----------------------------------------------------------

struct ToJson
{
    json_t *operator()(std::monostate) const
    {
        return json_null();
    }
    json_t *operator()(int64_t number) const
    {
        return json_integer(number);
    }
    json_t *operator()(double number) const
    {
        return json_real(number);
    }
    json_t *operator()(const std::string &text) const
    {
        return json_stringn(text.data(), text.size());
    }
    json_t *operator()(const audit::Blob &) const
    {
        return json_string("(bytes)");
    }
};

// The elements of an array that differ from those before, as many as those.
json_t *DifferentElements(const json_t *before, const json_t *after)
{
    json_t *changed = json_array();
    for (size_t i = 0; i < json_array_size(before); ++i)
    {
        json_t *element = json_array_get(after, i);
        if (json_equal(json_array_get(before, i), element) == 0)
        {
            json_array_append(changed, element);
        }
    }
    return changed;
}

constexpr char kTag[] = "SingleRecordEtag";

JsonPtr Parsed(const std::string &text)
{
    return JsonPtr(json_loads(text.c_str(), 0, nullptr));
}

std::string JsonPairs(std::span<const Column> columns)
{
    std::string pairs;
    for (const Column &column : columns)
    {
        const std::string name = column.name;
        pairs.append(pairs.empty() ? "'" : ", '")
            .append(name + "', \"" + name + "\"");
    }
    return pairs;
}

// Puts the elements of an array, if it has any, into its row.
void AddElements(const ArrayProperty &property, const std::string &database,
                 const std::string &where, json_t *row)
{
    const JsonPtr elements(json_array());
    for (const std::string &element :
         Query(database, "SELECT json_object('ARR_INDEX', ARR_INDEX, " +
                             JsonPairs(property.table->columns) + ") FROM " +
                             property.table->name + where + " AND PROP = '" +
                             property.name + "' ORDER BY ARR_INDEX"))
    {
        json_array_append_new(elements.get(), Parsed(element).release());
    }
    if (json_array_size(elements.get()) != 0)
    {
        json_object_set(row, property.name, elements.get());
    }
}

// A row as its table holds it, without its tag; NULL when there is none.
JsonPtr TableRow(const std::string &database, const Table &table, uint32_t oid)
{
    sqlite3 *opened = nullptr;
    EXPECT_EQ(sqlite3_open_v2(database.c_str(), &opened, SQLITE_OPEN_READONLY,
                              nullptr),
              SQLITE_OK);
    const ConnectionPtr connection(opened);
    sqlite3_busy_timeout(opened, 10000);
    const std::string sql =
        std::string("SELECT * FROM ") + table.name +
        " WHERE OID = " + std::to_string(static_cast<int32_t>(oid));
    sqlite3_stmt *made = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(opened, sql.c_str(), -1, &made, nullptr),
              SQLITE_OK)
        << sqlite3_errmsg(opened);
    const StatementPtr statement(made);
    if (sqlite3_step(made) != SQLITE_ROW)
    {
        return nullptr;
    }
    JsonPtr row(json_object());
    for (const Column &column : table.columns)
    {
        const auto index = static_cast<int>(&column - table.columns.data());
        EXPECT_STREQ(sqlite3_column_name(made, index), column.name);
        json_object_set_new(row.get(), column.name,
                            std::visit(ToJson(), audit::CellOf(made, index)));
    }
    return row;
}

// A row's integers as the reader of wide tables gives them: cut to 32 bits.
JsonPtr AsSignalled(const Table &table, const json_t *row)
{
    JsonPtr copy(json_deep_copy(row));
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(copy.get(), key, value)
    {
        if (ReadsWithSelectStar(table) && json_is_integer(value))
        {
            json_integer_set(value, static_cast<int32_t>(static_cast<uint64_t>(
                                        json_integer_value(value))));
        }
    }
    return copy;
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

JsonPtr SignalledRow(const std::string &database, const Table &table,
                     uint32_t oid)
{
    const std::string where =
        " WHERE OID = " + std::to_string(static_cast<int32_t>(oid));
    const std::string from = std::string(" FROM ") + table.name + where;
    JsonPtr row;
    if (ReadsWithSelectStar(table))
    {
        row = AsSignalled(table, TableRow(database, table, oid).get());
        json_object_set_new(
            row.get(), kTag,
            json_string(
                QueryValue(database, std::string("SELECT ") + kTag + from)
                    .c_str()));
    }
    else
    {
        row = Parsed(QueryValue(
            database, "SELECT json_object(" + JsonPairs(table.columns) + ", '" +
                          kTag + "', " + kTag + ")" + from));
    }
    // A text that JSON can't hold is missing.
    if (json_object_size(row.get()) != table.columns.size() + 1)
    {
        return nullptr;
    }
    for (const ArrayProperty &property : table.arrays)
    {
        AddElements(property, database, where, row.get());
    }
    return row;
}

JsonPtr Difference(const json_t *before, const json_t *after)
{
    JsonPtr changed(json_object());
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(const_cast<json_t *>(after), key, value)
    {
        const json_t *was = json_object_get(before, key);
        if (json_equal(was, value) == 0)
        {
            json_object_set_new(changed.get(), key,
                                json_is_array(was) && json_is_array(value)
                                    ? DifferentElements(was, value)
                                    : json_incref(value));
        }
    }
    return changed;
}

} // namespace qdb::test
