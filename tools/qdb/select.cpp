#include "tools/qdb/select.h"

#include "tools/qdb/command.h"
#include "tools/qdb/value.h"

#include <sqlite3.h>
#include <unistd.h>

namespace qdb::tool
{
namespace
{

constexpr int kBusyMs = 5000;

struct CloseDatabase
{
    void operator()(sqlite3 *handle) const
    {
        sqlite3_close_v2(handle);
    }
};
struct FinalizeStatement
{
    void operator()(sqlite3_stmt *statement) const
    {
        sqlite3_finalize(statement);
    }
};
using DatabasePtr = std::unique_ptr<sqlite3, CloseDatabase>;
using StatementPtr = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// The file is opened for reading, but ATTACH and VACUUM INTO would make others.
int AllowReading(void *, int action, const char *, const char *, const char *,
                 const char *)
{
    switch (action)
    {
    case SQLITE_SELECT:
    case SQLITE_READ:
    case SQLITE_FUNCTION:
    case SQLITE_RECURSIVE:
    case SQLITE_PRAGMA:
        return SQLITE_OK;
    default:
        return SQLITE_DENY;
    }
}

Failure Error(sqlite3 *handle)
{
    return sqlite3_errcode(handle) == SQLITE_AUTH ||
                   sqlite3_errcode(handle) == SQLITE_READONLY
               ? Failure("only statements that read are run here")
               : Failure(sqlite3_errmsg(handle));
}

bool IsBusy(int status)
{
    return (status & 0xFF) == SQLITE_BUSY || (status & 0xFF) == SQLITE_LOCKED;
}

std::string Hex(const unsigned char *bytes, size_t size)
{
    constexpr const char *kDigits = "0123456789abcdef";
    std::string text = "x'";
    for (size_t i = 0; i < size; ++i)
    {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text + '\'';
}

JsonPtr ValueAt(sqlite3_stmt *statement, int column)
{
    switch (sqlite3_column_type(statement, column))
    {
    case SQLITE_INTEGER:
        return JsonPtr(json_integer(sqlite3_column_int64(statement, column)));
    case SQLITE_FLOAT:
        return RealValue(sqlite3_column_double(statement, column));
    case SQLITE_NULL:
        return JsonPtr(json_null());
    default:
        break;
    }
    const bool isBlob = sqlite3_column_type(statement, column) == SQLITE_BLOB;
    const auto *bytes = static_cast<const unsigned char *>(
        sqlite3_column_blob(statement, column));
    const auto size =
        static_cast<size_t>(sqlite3_column_bytes(statement, column));
    return TextValue(isBlob ? Hex(bytes, size)
                            : std::string(bytes, bytes + size));
}

// Nothing but space and comments.
bool IsEnd(sqlite3 *handle, const char *sql)
{
    sqlite3_stmt *more = nullptr;
    const int status = sqlite3_prepare_v2(handle, sql, -1, &more, nullptr);
    const StatementPtr owner(more);
    return status == SQLITE_OK && more == nullptr;
}

Selected Run(sqlite3 *handle, const std::string &sql, Grid *pGrid)
{
    sqlite3_stmt *prepared = nullptr;
    const char *rest = nullptr;
    int status = sqlite3_prepare_v2(handle, sql.c_str(), -1, &prepared, &rest);
    const StatementPtr statement(prepared);
    if (IsBusy(status))
    {
        return Selected::Busy;
    }
    if (status != SQLITE_OK)
    {
        throw Error(handle);
    }
    if (prepared == nullptr || !IsEnd(handle, rest))
    {
        throw Failure("one statement is wanted");
    }
    const int columns = sqlite3_column_count(prepared);
    for (int i = 0; i < columns; ++i)
    {
        pGrid->columns.emplace_back(sqlite3_column_name(prepared, i));
    }
    while ((status = sqlite3_step(prepared)) == SQLITE_ROW)
    {
        auto &row = pGrid->rows.emplace_back();
        for (int i = 0; i < columns; ++i)
        {
            row.push_back(ValueAt(prepared, i));
        }
    }
    if (status != SQLITE_DONE && !IsBusy(status))
    {
        throw Error(handle);
    }
    return status == SQLITE_DONE ? Selected::Done : Selected::Busy;
}

} // namespace

Selected Select(const std::string &database, const std::string &sql, int busyMs,
                Grid *pGrid)
{
    sqlite3 *opened = nullptr;
    const int status = sqlite3_open_v2(database.c_str(), &opened,
                                       SQLITE_OPEN_READONLY, nullptr);
    const DatabasePtr handle(opened);
    if (status != SQLITE_OK)
    {
        if (access(database.c_str(), F_OK) != 0)
        {
            return Selected::NoDatabase;
        }
        throw Failure(database + ": " + sqlite3_errmsg(opened));
    }
    sqlite3_busy_timeout(opened, busyMs);
    sqlite3_set_authorizer(opened, AllowReading, nullptr);
    *pGrid = {};
    return Run(opened, sql, pGrid);
}

Grid MustSelect(const std::string &database, const std::string &sql)
{
    Grid grid;
    switch (Select(database, sql, kBusyMs, &grid))
    {
    case Selected::NoDatabase:
        throw Failure("no database at " + database);
    case Selected::Busy:
        throw Failure("the database is busy");
    default:
        return grid;
    }
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
