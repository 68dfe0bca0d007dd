// The tables in words.
#include "tools/schema_markdown.h"

#include "objects/schema/rows.h"
#include "tools/schema_sql.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

namespace qdb
{
namespace
{

constexpr const char *kIntroduction = R"(# Tables of the database

Written by `qdb-schema markdown`; don't edit it by hand.

Every mirrored object has a row in `ActiveOIDMapping` (`OID`, `ObjType`) and a
row in the table of its object type. Deleting the mapping row deletes the
object's rows everywhere, its links in `ParentChildMapping` (`OID`, `POID`)
included. `TblEtag` (`TableName`, `MultiRecordEtag`) holds the time of the last
insert into each object table, in seconds since 1970 as text.

Below stand the object tables, then the side tables that hold the elements of
array properties. Every object table has, behind the columns listed, the column
`SingleRecordEtag` (TEXT): the time of the row's last update, in the same form.
OIDs are signed 32-bit integers here. Offsets count from the first byte of the
object; where one is followed by an asterisk, the object library does not
document the field, and its place was chosen to fit in with the others.
)";

std::string Hex(unsigned value)
{
    std::ostringstream out;
    out << "0x" << std::uppercase << std::hex << std::setfill('0')
        << std::setw(2) << value;
    return out.str();
}

std::string BitRange(const Source &source)
{
    const int last = source.bit + source.width - 1;
    return source.width == 1 ? "bit " + std::to_string(source.bit)
                             : "bits " + std::to_string(source.bit) + " to " +
                                   std::to_string(last);
}

const char *JoinWords(Join join)
{
    switch (join)
    {
    case Join::None:
        return "";
    case Join::PossibleValues:
        return "possible values, joined by `#$#`";
    case Join::DisplayValues:
        return "display values, joined by `#$#`";
    case Join::DnsServers:
        return "DNS servers, joined by `#$#`, IPv6 behind `@@@`";
    case Join::Gateways:
        return "gateways, joined by `#$#`, IPv6 behind `@@@`";
    case Join::PhysicalFqdds:
        return "FQDDs, joined by `#$#`";
    }
    return "";
}

std::string FormWords(const Source &source)
{
    const std::string words = FactsOf(source.form).words;
    switch (source.form)
    {
    case Form::Bits:
        return BitRange(source);
    case Form::OffsetTextIf:
        return words + Hex(source.aux) + " is 0";
    case Form::BodyText:
        return words + Hex(kBodyBase);
    case Form::Joined:
        return JoinWords(source.join);
    default:
        return words;
    }
}

// What the column holds; an array property names its side table.
std::string Holds(const Column &column, std::span<const ArrayProperty> arrays)
{
    const auto array = std::ranges::find_if(
        arrays,
        [&](const ArrayProperty &property)
        {
            return std::string_view(property.name) == column.name;
        });
    if (array != arrays.end())
    {
        return "NULL; its elements are in `" + std::string(array->table->name) +
               "`";
    }
    return FormWords(column.source) +
           (column.source.insertOnly ? "; never updated" : "");
}

void WriteColumns(std::span<const Column> columns,
                  std::span<const ArrayProperty> arrays, std::ostream &out)
{
    out << "| Column | SQL type | Holds | Offset |\n|---|---|---|---|\n";
    for (const Column &column : columns)
    {
        const Source &source = column.source;
        out << "| `" << column.name << "` | " << FactsOf(source.form).sqlType
            << " | " << Holds(column, arrays) << " | "
            << (HasField(source) ? Hex(source.offset) : "")
            << (source.placed ? "*" : "") << " |\n";
    }
}

void WriteObjectTable(const Table &table, std::ostream &out)
{
    out << "\n## " << table.name << "\n\nObject types:";
    const char *separator = " ";
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        if (row.table == &table)
        {
            out << separator << Hex(row.objType);
            separator = ", ";
        }
    }
    out << "\n\n";
    WriteColumns(table.columns, table.arrays, out);
    if (&table == &kTblStrAttribute)
    {
        out << "\n`isRawData` (INTEGER) is 1 while the value comes from a raw"
               " data file, else 0.\n";
    }
}

void WriteSideTable(const SideTable &table, std::ostream &out)
{
    out << "\n## " << table.name
        << "\n\nKey: `OID`, `PROP` (the property's name), `ARR_INDEX`. An"
           " element has "
        << table.recordSize << (table.recordSize == 1 ? " byte" : " bytes")
        << ";\noffsets count from its first one.\n\n";
    WriteColumns(table.columns, {}, out);
}

} // namespace

std::string SchemaMarkdown()
{
    std::ostringstream out;
    out << kIntroduction;
    for (const Table *table : ObjectTables())
    {
        WriteObjectTable(*table, out);
    }
    for (const SideTable *table : kSideTables)
    {
        WriteSideTable(*table, out);
    }
    return out.str();
}

} // namespace qdb
