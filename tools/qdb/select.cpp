#include "tools/qdb/select.h"

#include "tools/qdb/command.h"
#include "tools/qdb/value.h"

#include <cerrno>

namespace qdb::tool
{
namespace
{

struct FreeResult
{
    void operator()(qdb_result *result) const
    {
        qdb_result_free(result);
    }
};

Grid GridOf(const qdb_result *result)
{
    Grid grid;
    const size_t columns = qdb_result_columns(result);
    for (size_t i = 0; i < columns; ++i)
    {
        grid.columns.emplace_back(qdb_result_name(result, i));
    }
    for (size_t at = 0; at < qdb_result_count(result); ++at)
    {
        auto &row = grid.rows.emplace_back();
        for (size_t i = 0; i < columns; ++i)
        {
            row.push_back(ColumnValue(qdb_result_row(result, at), i));
        }
    }
    return grid;
}

} // namespace

int Select(qdb_mirror *mirror, const std::string &database,
           const std::string &sql, Grid *pGrid)
{
    qdb_result *made = nullptr;
    const int status = qdb_mirror_select(mirror, sql.c_str(), &made);
    const std::unique_ptr<qdb_result, FreeResult> result(made);
    switch (status)
    {
    case 0:
        *pGrid = GridOf(made);
        return 0;
    case -ENODATA:
    case -EBUSY:
        return status;
    case -EIO:
        throw Failure(database + ": " + qdb_mirror_error(mirror));
    default:
        throw Failure(qdb_mirror_error(mirror));
    }
}

Grid MustSelect(qdb_mirror *mirror, const std::string &database,
                const std::string &sql)
{
    Grid grid;
    if (const int result = Select(mirror, database, sql, &grid))
    {
        throw FailureOf(result, "", database);
    }
    return grid;
}

std::string QuotedName(const std::string &name)
{
    std::string quoted = "\"";
    for (const char c : name)
    {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + '"';
}

} // namespace qdb::tool
