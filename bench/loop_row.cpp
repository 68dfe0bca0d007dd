#include "bench/loop_row.h"

#include "core/state.h"
#include "db/connection.h"
#include "db/mapping.h"
#include "objects/predicates.h"
#include "objects/sql_text.h"

#include <cstring>
#include <stdexcept>

namespace qdb::bench
{
namespace
{

constexpr char kTag[] = "SingleRecordEtag";

const char *TextAt(sqlite3_stmt *statement, int column)
{
    return reinterpret_cast<const char *>(
        sqlite3_column_text(statement, column));
}

JsonPtr Parse(sqlite3_stmt *statement)
{
    const char *text = TextAt(statement, 0);
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
        return json_string(TextAt(statement, column));
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

void AddArray(sqlite3_stmt *elements, const char *property, uint32_t oid,
              json_t *row)
{
    const StatementReset reset(elements);
    sqlite3_bind_int64(elements, 1, StoredOid(oid));
    sqlite3_bind_text(elements, 2, property, -1, SQLITE_TRANSIENT);
    JsonPtr array;
    while (sqlite3_step(elements) == SQLITE_ROW)
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

sqlite3_stmt *LazyStatement::Get()
{
    if (statement_ == nullptr)
    {
        int status = SQLITE_OK;
        statement_ = PrepareOnce(sql_.c_str(), &status);
    }
    if (statement_ == nullptr)
    {
        throw std::runtime_error("can't prepare " + sql_);
    }
    return statement_.get();
}

void StepTo(sqlite3_stmt *statement, int expected)
{
    if (sqlite3_step(statement) != expected)
    {
        throw std::runtime_error(sqlite3_errmsg(QDVdbHandle));
    }
}

void Write(LazyStatement &statement, std::initializer_list<int> values)
{
    const StatementReset reset(statement.Get());
    int parameter = 1;
    for (const int value : values)
    {
        sqlite3_bind_int(statement.Get(), parameter++, value);
    }
    StepTo(statement.Get(), SQLITE_DONE);
}

LoopRow::LoopRow(const ObjTypeRow &ofRow)
    : row(ofRow), insert_(InsertSql(row).c_str()),
      update_(UpdateSql(row).c_str()),
      select_((ReadsWithSelectStar(*row.table) ? SelectStarSql(row)
                                               : SelectJsonSql(row))
                  .c_str())
{
    for (const ArrayProperty &property : row.table->arrays)
    {
        elements_.emplace_back(SelectElementsSql(*property.table).c_str());
    }
}

// Returns the number of the next parameter.
int LoopRow::Bind(sqlite3_stmt *statement, const ObjectView &object,
                  BindMode mode, const char *parentKey) const
{
    int parameter = 1;
    for (const Column &column : row.table->columns)
    {
        if (mode == BindMode::Update && column.source.insertOnly)
        {
            continue;
        }
        if (column.source.form == Form::ParentKey)
        {
            sqlite3_bind_text(statement, parameter, parentKey, -1,
                              SQLITE_TRANSIENT);
        }
        else if (!IsNeverStored(row, column))
        {
            BindField(statement, parameter, column.source, object);
        }
        ++parameter;
    }
    return parameter;
}

void LoopRow::Insert(const ObjectView &object, const char *parentKey)
{
    const StatementReset reset(insert_.Get());
    Bind(insert_.Get(), object, BindMode::Insert, parentKey);
    StepTo(insert_.Get(), SQLITE_DONE);
}

void LoopRow::Update(const ObjectView &object, uint32_t oid)
{
    const StatementReset reset(update_.Get());
    const int last = Bind(update_.Get(), object, BindMode::Update, nullptr);
    sqlite3_bind_int(update_.Get(), last, StoredOid(oid));
    StepTo(update_.Get(), SQLITE_DONE);
}

JsonPtr LoopRow::Read(uint32_t oid)
{
    sqlite3_stmt *select = select_.Get();
    const StatementReset reset(select);
    sqlite3_bind_int64(select, 1, StoredOid(oid));
    StepTo(select, SQLITE_ROW);
    JsonPtr read =
        ReadsWithSelectStar(*row.table) ? Build(select) : Parse(select);
    for (size_t i = 0; i < elements_.size(); ++i)
    {
        AddArray(elements_[i].Get(), row.table->arrays[i].name, oid,
                 read.get());
    }
    return read;
}

JsonText LoopRow::Whole(JsonPtr whole) const
{
    return JsonText(json_dumps(ChangeObject(row, std::move(whole)).get(), 0));
}

JsonText LoopRow::Change(JsonPtr before, JsonPtr after) const
{
    JsonPtr changed(json_object());
    JsonPtr previous(row.Has(Trait::PreviousValues) ? json_object() : nullptr);
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
        return nullptr;
    }
    const JsonPtr change = ChangeObject(row, std::move(after));
    json_object_set_new(change.get(), "PropertiesChanged", changed.release());
    if (previous != nullptr)
    {
        json_object_set_new(change.get(), "PreviousPropertyValues",
                            previous.release());
    }
    return JsonText(json_dumps(change.get(), 0));
}

const ObjTypeRow &RowOf(DataObjHeader *object)
{
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        if (row.objType == object->objType && Applies(row, object, nullptr))
        {
            return row;
        }
    }
    throw std::runtime_error("an object has no row");
}

} // namespace qdb::bench
