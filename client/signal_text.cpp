#include "client/signal_text.h"

#include <cstring>
#include <utility>

namespace qdb::client
{
namespace
{

StatementPtr Prepare(sqlite3 *handle, const char *sql)
{
    sqlite3_stmt *prepared = nullptr;
    sqlite3_prepare_v2(handle, sql, -1, &prepared, nullptr);
    return StatementPtr(prepared);
}

// The elements of an array property as a row has them: the service sends each
// with its place, and a plain value as an object.
constexpr char kElements[] =
    "SELECT json_group_array(json(element)) FROM (SELECT CASE type WHEN "
    "'object' THEN (SELECT CASE WHEN count(*) = 1 AND max(f.key) = 'VAL' THEN "
    "json_quote(max(f.atom)) ELSE json_group_object(f.key, f.atom) END FROM "
    "json_each(e.value) f WHERE f.key <> 'ARR_INDEX') ELSE json_quote(atom) "
    "END AS element FROM json_each(?1) e)";

} // namespace

SignalReader::SignalReader()
{
    sqlite3 *opened = nullptr;
    sqlite3_open_v2(":memory:", &opened,
                    SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    memory_.reset(opened);
    head_ = Prepare(opened, "SELECT json_extract(?1, '$.TableName'), "
                            "json_extract(?1, '$.RowDetails.OID') "
                            "WHERE json_valid(?1)");
    members_ =
        Prepare(opened, "SELECT key, type, atom, value FROM json_each(?1, ?2)");
    elements_ = Prepare(opened, kElements);
}

// Of the row that members_ stands at.
Value SignalReader::MemberValue()
{
    constexpr int kType = 1;
    constexpr int kAtom = 2;
    constexpr int kValue = 3;
    sqlite3_stmt *statement = members_.get();
    const std::string type = TextAt(statement, kType);
    if (type == "true" || type == "false")
    {
        return Integer(sqlite3_column_int64(statement, kAtom));
    }
    if (type == "array")
    {
        const std::string text = TextAt(statement, kValue);
        const Reset reset{elements_.get()};
        sqlite3_bind_text(elements_.get(), 1, text.c_str(), -1, SQLITE_STATIC);
        sqlite3_step(elements_.get());
        return {QDB_JSON, 0, 0, TextAt(elements_.get(), 0)};
    }
    return type == "object" ? Value{QDB_JSON, 0, 0, TextAt(statement, kValue)}
                            : ValueAt(statement, kAtom);
}

bool SignalReader::ReadHead(const char *text, Signal *pSignal)
{
    sqlite3_stmt *statement = head_.get();
    sqlite3_bind_text(statement, 1, text, -1, SQLITE_STATIC);
    const bool isRead = sqlite3_step(statement) == SQLITE_ROW &&
                        sqlite3_column_type(statement, 0) == SQLITE_TEXT;
    if (isRead)
    {
        pSignal->table = TextAt(statement, 0);
        pSignal->oid = sqlite3_column_int64(statement, 1);
    }
    sqlite3_reset(statement);
    return isRead;
}

void SignalReader::ReadObject(const char *text, const char *path,
                              const Table &table, const Take &take)
{
    sqlite3_stmt *statement = members_.get();
    sqlite3_bind_text(statement, 1, text, -1, SQLITE_STATIC);
    sqlite3_bind_text(statement, 2, path, -1, SQLITE_STATIC);
    size_t next = 0; // members mostly come in the order of the columns
    while (sqlite3_step(statement) == SQLITE_ROW)
    {
        const std::string name = TextAt(statement, 0);
        const bool isNext =
            next < table.columns.size() && table.columns[next] == name;
        const size_t column = isNext ? next : table.Find(name);
        if (column < table.columns.size())
        {
            take(column, MemberValue());
            next = column + 1;
        }
    }
    sqlite3_reset(statement);
}

void SignalReader::ReadBody(const char *text, const Table &table,
                            Signal *pSignal)
{
    pSignal->row = {&table, pSignal->oid,
                    std::vector<Value>(table.columns.size())};
    ReadObject(text, "$.RowDetails", table,
               [&](size_t column, Value value)
               {
                   pSignal->row.values[column] = std::move(value);
               });
    if (pSignal->kind != SignalKind::Changed)
    {
        return;
    }
    ReadObject(text, "$.PropertiesChanged", table,
               [&](size_t column, const Value & /*value*/)
               {
                   pSignal->changed.push_back(column);
               });
    ReadObject(text, "$.PreviousPropertyValues", table,
               [&](size_t column, Value value)
               {
                   pSignal->previous[column] = std::move(value);
               });
}

} // namespace qdb::client
