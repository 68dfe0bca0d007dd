#include "client/signal_text.h"

#include "client/statement.h"

#include <utility>

namespace qdb::client
{
namespace
{

// The elements of an array property as a row has them: the service sends each
// with its place, and a plain value as an object.
Value ArrayValue(json_t *elements)
{
    const JsonPtr array(json_array());
    size_t i = 0;
    json_t *element = nullptr;
    json_array_foreach(elements, i, element)
    {
        json_object_del(element, "ARR_INDEX");
        json_t *plain = json_object_get(element, "VAL");
        json_array_append(array.get(),
                          plain != nullptr && json_object_size(element) == 1
                              ? plain
                              : element);
    }
    return JsonValue(array.get());
}

Value MemberValue(json_t *member)
{
    switch (json_typeof(member))
    {
    case JSON_INTEGER:
        return Integer(json_integer_value(member));
    case JSON_TRUE:
        return Integer(1);
    case JSON_FALSE:
        return Integer(0);
    case JSON_REAL:
        return Real(json_real_value(member));
    case JSON_STRING:
        return {QDB_TEXT,
                0,
                0,
                {json_string_value(member), json_string_length(member)}};
    case JSON_ARRAY:
        return ArrayValue(member);
    case JSON_OBJECT:
        return JsonValue(member);
    default:
        return {};
    }
}

// Gives each member that is a column of the table.
template <typename Take>
void ReadObject(json_t *object, const Table &table, Take take)
{
    size_t next = 0; // members mostly come in the order of the columns
    const char *name = nullptr;
    json_t *member = nullptr;
    json_object_foreach(object, name, member)
    {
        const bool isNext =
            next < table.columns.size() && table.columns[next] == name;
        const size_t column = isNext ? next : table.Find(name);
        if (column < table.columns.size())
        {
            take(column, member);
            next = column + 1;
        }
    }
}

} // namespace

void Signal::Complete(const qdb_row &now)
{
    for (const size_t column : missing)
    {
        row.values[column] = now.values[column];
    }
    tag = missing.empty() ? tag : row.Tag();
}

SignalText::SignalText(const std::string &text)
    : whole_(json_loadb(text.data(), text.size(), JSON_ALLOW_NUL, nullptr))
{
}

std::string SignalText::Table() const
{
    const char *name =
        json_string_value(json_object_get(whole_.get(), "TableName"));
    return name == nullptr ? "" : name;
}

Signal SignalText::Read(SignalKind kind, const client::Table &table) const
{
    json_t *details = json_object_get(whole_.get(), "RowDetails");
    Signal signal;
    signal.kind = kind;
    signal.oid = json_integer_value(json_object_get(details, "OID"));
    signal.row = {&table, signal.oid, std::vector<Value>(table.columns.size())};
    ReadObject(details, table,
               [&](size_t column, json_t *member)
               {
                   signal.row.values[column] = MemberValue(member);
               });
    for (size_t i = 0; i < table.columns.size(); ++i)
    {
        if (signal.row.values[i].type == QDB_NULL &&
            json_object_get(details, table.columns[i].c_str()) == nullptr)
        {
            signal.missing.push_back(i);
        }
    }
    signal.tag = signal.row.Tag();
    if (kind != SignalKind::Changed)
    {
        return signal;
    }
    ReadObject(json_object_get(whole_.get(), "PropertiesChanged"), table,
               [&](size_t column, json_t * /*member*/)
               {
                   signal.changed.push_back(column);
               });
    ReadObject(json_object_get(whole_.get(), "PreviousPropertyValues"), table,
               [&](size_t column, json_t *member)
               {
                   signal.previous[column] = MemberValue(member);
               });
    return signal;
}

} // namespace qdb::client
