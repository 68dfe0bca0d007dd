#include "objects/sql_text.h"

#include <cstdio>

namespace qdb
{
namespace
{

// "'a', 'b') VALUES (?, ?)" for a list that has been begun with "(".
void AppendValues(std::string &sql, std::span<const Column> columns,
                  size_t count, const char *separator)
{
    for (const Column &column : columns)
    {
        sql += separator;
        sql += '\'';
        sql += column.name;
        sql += '\'';
        separator = ", ";
    }
    sql += ") VALUES (?";
    for (size_t i = 1; i < count; ++i)
    {
        sql += ", ?";
    }
    sql += ')';
}

} // namespace

std::string InsertSql(const Table &table)
{
    std::string sql = "INSERT OR REPLACE INTO ";
    sql += table.name;
    sql += " (";
    AppendValues(sql, table.columns, table.columns.size(), "");
    return sql;
}

std::string UpdateSql(const Table &table, bool rawGuard)
{
    std::string sql = "UPDATE ";
    sql += table.name;
    sql += " SET 'SingleRecordEtag' = strftime('%s')";
    for (const Column &column : table.columns)
    {
        if (!column.source.insertOnly)
        {
            sql += ", '";
            sql += column.name;
            sql += "' = ?";
        }
    }
    sql += rawGuard ? " WHERE OID = ? AND isRawData = ?" : " WHERE OID = ?";
    return sql;
}

std::string SelectJsonSql(const Table &table, bool bareColumns)
{
    const char *quote = bareColumns ? "" : "\"";
    std::string sql = "SELECT json_object(";
    for (const Column &column : table.columns)
    {
        sql += '\'';
        sql += column.name;
        sql += "', ";
        sql += quote;
        sql += column.name;
        sql += quote;
        sql += ", ";
    }
    sql += "'SingleRecordEtag', SingleRecordEtag) AS json_result FROM (SELECT "
           "* FROM ";
    sql += table.name;
    sql += " WHERE OID = ?)";
    return sql;
}

SelectStarSql::SelectStarSql(const Table &table)
{
    std::snprintf(text, sizeof(text), "SELECT * from %s WHERE OID = ?",
                  table.name);
}

std::string InsertElementSql(const SideTable &table)
{
    std::string sql = "INSERT OR REPLACE INTO ";
    sql += table.name;
    sql += " ('OID', 'PROP', 'ARR_INDEX'";
    AppendValues(sql, table.columns, table.columns.size() + 3, ", ");
    return sql;
}

std::string SelectElementsSql(const SideTable &table)
{
    std::string sql = "SELECT json_object('ARR_INDEX', ARR_INDEX";
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
