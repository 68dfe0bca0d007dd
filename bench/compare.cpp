#include "bench/compare.h"

#include "db/statement_ptr.h"

#include <stdexcept>
#include <vector>

namespace qdb::bench
{
namespace
{

constexpr int kBusyTimeoutMs = 10000;

// The first column of all rows that a query gives.
std::vector<std::string> Query(const ConnectionPtr &connection,
                               const std::string &sql)
{
    const auto append = [](void *values, int, char **texts, char **)
    {
        static_cast<std::vector<std::string> *>(values)->push_back(
            texts[0] == nullptr ? "" : texts[0]);
        return 0;
    };
    std::vector<std::string> values;
    if (sqlite3_exec(connection.get(), sql.c_str(), append, &values, nullptr) !=
        SQLITE_OK)
    {
        throw std::runtime_error(std::string("comparing the rows: ") +
                                 sqlite3_errmsg(connection.get()));
    }
    return values;
}

// Rows of one table that only one side has; EXCEPT alone would take two equal
// rows for one. Tags are the time of day.
std::string DifferenceSql(const std::string &table, const std::string &columns)
{
    const std::string service = columns + " FROM main." + table;
    const std::string plain = columns + " FROM plain." + table;
    return "SELECT (SELECT count(*) FROM main." + table +
           ") <> (SELECT count(*) FROM plain." + table +
           ") OR EXISTS (SELECT " + service + " EXCEPT SELECT " + plain +
           ") OR EXISTS (SELECT " + plain + " EXCEPT SELECT " + service + ")";
}

} // namespace

void CheckSameRows(const std::string &service, const std::string &plain,
                   uint64_t objects)
{
    sqlite3 *opened = nullptr;
    sqlite3_open_v2(service.c_str(), &opened, SQLITE_OPEN_READONLY, nullptr);
    const ConnectionPtr connection(opened);
    sqlite3_busy_timeout(opened, kBusyTimeoutMs);
    Query(connection, "ATTACH '" + plain + "' AS plain");
    for (const std::string &table :
         Query(connection,
               "SELECT name FROM main.sqlite_schema WHERE type = 'table' "
               "AND name NOT LIKE 'sqlite_%'"))
    {
        const std::string columns =
            Query(connection, "SELECT group_concat('\"' || name || '\"') FROM "
                              "pragma_table_info('" +
                                  table +
                                  "') WHERE name NOT LIKE '%RecordEtag'")
                .at(0);
        if (Query(connection, DifferenceSql(table, columns)).at(0) != "0")
        {
            throw std::runtime_error("the sides have different rows in " +
                                     table);
        }
    }
    const std::string mapped =
        Query(connection, "SELECT count(*) FROM main.ActiveOIDMapping").at(0);
    if (mapped != std::to_string(objects))
    {
        throw std::runtime_error(mapped + " objects have a row instead of " +
                                 std::to_string(objects));
    }
}

} // namespace qdb::bench
