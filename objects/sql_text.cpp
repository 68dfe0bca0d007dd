#include "objects/sql_text.h"

#include <algorithm>
#include <cstring>

namespace qdb
{
namespace
{

// "'a', 'b') VALUES (?, ?)" for a list that has been begun with "(".
void AppendValues(SqlText &sql, std::span<const Column> columns, size_t count,
                  const char *separator)
{
    for (const Column &column : columns)
    {
        sql += separator;
        sql += "'";
        sql += column.name;
        sql += "'";
        separator = ", ";
    }
    sql += ") VALUES (?";
    for (size_t i = 1; i < count; ++i)
    {
        sql += ", ?";
    }
    sql += ")";
}

} // namespace

SqlText &SqlText::operator+=(std::string_view text)
{
    const size_t count = std::min(text.size(), sizeof(text_) - 1 - size_);
    std::memcpy(text_ + size_, text.data(), count);
    size_ += count;
    text_[size_] = '\0';
    return *this;
}

SqlText InsertSql(const ObjTypeRow &row)
{
    SqlText sql("INSERT OR REPLACE INTO ");
    sql += row.table->name;
    sql += " (";
    AppendValues(sql, row.table->columns, row.table->columns.size(), "");
    return sql;
}

SqlText UpdateSql(const ObjTypeRow &row)
{
    SqlText sql("UPDATE ");
    sql += row.table->name;
    sql += " SET 'SingleRecordEtag' = strftime('%s')";
    for (const Column &column : row.table->columns)
    {
        if (!column.source.insertOnly)
        {
            sql += ", '";
            sql += column.name;
            sql += "' = ?";
        }
    }
    sql += row.Has(Trait::RawValues) ? " WHERE OID = ? AND isRawData = ?"
                                     : " WHERE OID = ?";
    return sql;
}

SqlText SelectJsonSql(const ObjTypeRow &row)
{
    // The tables of configuration attributes were written by another hand.
    const char *quote = row.Has(Trait::Attribute) ? "" : "\"";
    SqlText sql("SELECT json_object(");
    for (const Column &column : row.table->columns)
    {
        sql += "'";
        sql += column.name;
        sql += "', ";
        sql += quote;
        sql += column.name;
        sql += quote;
        sql += ", ";
    }
    sql += "'SingleRecordEtag', SingleRecordEtag) AS json_result FROM (SELECT "
           "* FROM ";
    sql += row.table->name;
    sql += " WHERE OID = ?)";
    return sql;
}

SqlText SelectStarSql(const ObjTypeRow &row)
{
    SqlText sql("SELECT * from ");
    sql += row.table->name;
    sql += " WHERE OID = ?";
    return sql;
}

SqlText InsertElementSql(const SideTable &table)
{
    SqlText sql("INSERT OR REPLACE INTO ");
    sql += table.name;
    sql += " ('OID', 'PROP', 'ARR_INDEX'";
    AppendValues(sql, table.columns, table.columns.size() + 3, ", ");
    return sql;
}

SqlText SelectElementsSql(const SideTable &table)
{
    SqlText sql("SELECT json_object('ARR_INDEX', ARR_INDEX");
    for (const Column &column : table.columns)
    {
        sql += ", '";
        sql += column.name;
        sql += "', ";
        sql += column.name;
    }
    sql += ") AS json_result FROM (SELECT * FROM ";
    sql += table.name;
    sql += " WHERE OID = ? and PROP = ?)";
    return sql;
}

} // namespace qdb
