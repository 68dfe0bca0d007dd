#include "bench/rows.h"

#include "db/statement.h"

#include <sqlite3.h>

#include <memory>
#include <stdexcept>
#include <vector>

namespace qdb::bench
{
namespace
{

struct CloseConnection
{
    void operator()(sqlite3 *connection) const
    {
        sqlite3_close(connection);
    }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

constexpr int kBusyTimeoutMs = 10000;

// The first column of all rows that a query gives.
std::vector<std::string> Query(const Connection &connection,
                               const std::string &sql)
{
    sqlite3_stmt *made = nullptr;
    int status =
        sqlite3_prepare_v2(connection.get(), sql.c_str(), -1, &made, nullptr);
    const StatementPtr statement(made);
    std::vector<std::string> values;
    while (status == SQLITE_OK || status == SQLITE_ROW)
    {
        status = sqlite3_step(statement.get());
        if (status == SQLITE_ROW)
        {
            const auto *text = reinterpret_cast<const char *>(
                sqlite3_column_text(statement.get(), 0));
            values.emplace_back(text == nullptr ? "" : text);
        }
    }
    if (status != SQLITE_DONE)
    {
        throw std::runtime_error("comparing: " +
                                 std::string(sqlite3_errmsg(connection.get())));
    }
    return values;
}

Connection OpenBoth(const std::string &service, const std::string &plain)
{
    sqlite3 *opened = nullptr;
    const int status = sqlite3_open_v2(service.c_str(), &opened,
                                       SQLITE_OPEN_READONLY, nullptr);
    Connection connection(opened);
    if (status != SQLITE_OK)
    {
        throw std::runtime_error("can't read " + service);
    }
    sqlite3_busy_timeout(connection.get(), kBusyTimeoutMs);
    Query(connection, "ATTACH '" + plain + "' AS plain");
    return connection;
}

// How many rows of one table the other has not.
std::string MissingSql(const std::string &columns, const std::string &from,
                       const std::string &in)
{
    return "SELECT count(*) FROM (SELECT " + columns + " FROM " + from +
           " EXCEPT SELECT " + columns + " FROM " + in + ")";
}

void CheckTable(const Connection &connection, const std::string &table)
{
    // Tags are the time of day.
    const std::string columns =
        Query(connection, "SELECT group_concat('\"' || name || '\"') FROM "
                          "pragma_table_info('" +
                              table + "') WHERE name NOT LIKE '%RecordEtag'")
            .at(0);
    const std::string service = "main.\"" + table + "\"";
    const std::string plain = "plain.\"" + table + "\"";
    const auto value = [&](const std::string &sql)
    {
        return Query(connection, sql).at(0);
    };
    // EXCEPT alone would take two equal rows for one.
    if (value("SELECT count(*) FROM " + service) !=
            value("SELECT count(*) FROM " + plain) ||
        value(MissingSql(columns, service, plain)) != "0" ||
        value(MissingSql(columns, plain, service)) != "0")
    {
        throw std::runtime_error("the service and the plain loop wrote "
                                 "different rows to " +
                                 table);
    }
}

} // namespace

void CheckSameRows(const std::string &service, const std::string &plain,
                   uint64_t objects)
{
    const Connection connection = OpenBoth(service, plain);
    for (const std::string &table :
         Query(connection, "SELECT name FROM main.sqlite_schema WHERE type = "
                           "'table' AND name NOT LIKE 'sqlite_%'"))
    {
        CheckTable(connection, table);
    }
    const std::string mapped =
        Query(connection, "SELECT count(*) FROM main.ActiveOIDMapping").at(0);
    if (mapped != std::to_string(objects))
    {
        throw std::runtime_error(mapped + " rows instead of " +
                                 std::to_string(objects));
    }
}

} // namespace qdb::bench
