#include "bench/parsed_rows.h"

#include "db/mapping.h"

#include <cstring>
#include <stdexcept>

namespace qdb::bench
{
namespace
{

constexpr char kTag[] = "SingleRecordEtag";

JsonPtr Parse(const StatementPtr &statement)
{
    const auto *text =
        reinterpret_cast<const char *>(sqlite3_column_text(statement.get(), 0));
    JsonPtr parsed(text == nullptr ? nullptr : json_loads(text, 0, nullptr));
    if (parsed == nullptr)
    {
        throw std::runtime_error("a row isn't JSON");
    }
    return parsed;
}

json_t *ColumnValue(sqlite3_stmt *statement, int column)
{
    switch (sqlite3_column_type(statement, column))
    {
    case SQLITE_INTEGER:
        return json_integer(sqlite3_column_int(statement, column));
    case SQLITE_FLOAT:
        return json_real(sqlite3_column_double(statement, column));
    case SQLITE_TEXT:
        return json_string(reinterpret_cast<const char *>(
            sqlite3_column_text(statement, column)));
    default:
        return json_null();
    }
}

JsonPtr Build(sqlite3_stmt *statement)
{
    JsonPtr row(json_object());
    const int columns = sqlite3_column_count(statement);
    for (int i = 0; i < columns; ++i)
    {
        json_object_set_new(row.get(), sqlite3_column_name(statement, i),
                            ColumnValue(statement, i));
    }
    return row;
}

void AddArray(const StatementPtr &elements, const char *property, uint32_t oid,
              json_t *row)
{
    const StatementReset reset(elements.get());
    sqlite3_bind_int64(elements.get(), 1, StoredOid(oid));
    sqlite3_bind_text(elements.get(), 2, property, -1, SQLITE_TRANSIENT);
    JsonPtr array;
    while (sqlite3_step(elements.get()) == SQLITE_ROW)
    {
        if (array == nullptr)
        {
            array.reset(json_array());
        }
        json_array_append_new(array.get(), Parse(elements).release());
    }
    if (array != nullptr)
    {
        json_object_set_new(row, property, array.release());
    }
}

JsonPtr ChangeObject(const ObjTypeRow &row, JsonPtr whole)
{
    JsonPtr change(json_object());
    json_object_set_new(change.get(), "TableName",
                        json_string(row.table->name));
    json_object_set_new(change.get(), "RowDetails", whole.release());
    return change;
}

} // namespace

ParsedRows::Row ParsedRows::Read(RowStatements &statements, uint32_t oid)
{
    const StatementPtr &select = statements.select.Get();
    const StatementReset reset(select.get());
    sqlite3_bind_int64(select.get(), 1, StoredOid(oid));
    StepTo(select, SQLITE_ROW);
    const Table &table = *statements.row.table;
    Row row = ReadsWithSelectStar(table) ? Build(select.get()) : Parse(select);
    for (size_t i = 0; i < table.arrays.size(); ++i)
    {
        AddArray(statements.elements[i].Get(), table.arrays[i].name, oid,
                 row.get());
    }
    return row;
}

ParsedRows::Text ParsedRows::RenderWhole(const ObjTypeRow &row, Row whole)
{
    return Text(json_dumps(ChangeObject(row, std::move(whole)).get(), 0));
}

std::optional<ParsedRows::Text> ParsedRows::RenderChange(const ObjTypeRow &row,
                                                         Row before, Row after)
{
    JsonPtr changed(json_object());
    JsonPtr previous(HasPreviousValues(row) ? json_object() : nullptr);
    bool any = false;
    const char *key = nullptr;
    json_t *old = nullptr;
    json_object_foreach(before.get(), key, old)
    {
        json_t *value = json_object_get(after.get(), key);
        if (json_equal(old, value) == 0)
        {
            json_object_set(changed.get(), key, value);
            json_object_set(previous.get(), key, old);
            any = any || std::strcmp(key, kTag) != 0;
        }
    }
    if (!any)
    {
        return std::nullopt;
    }
    const JsonPtr change = ChangeObject(row, std::move(after));
    json_object_set_new(change.get(), "PropertiesChanged", changed.release());
    if (previous != nullptr)
    {
        json_object_set_new(change.get(), "PreviousPropertyValues",
                            previous.release());
    }
    return Text(json_dumps(change.get(), 0));
}

} // namespace qdb::bench
