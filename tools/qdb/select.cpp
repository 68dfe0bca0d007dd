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

// The file is opened for reading; but ATTACH and VACUUM INTO, which attaches,
// would make others, and a transaction would be nobody's.
int RefuseOthers(void *, int action, const char *, const char *, const char *,
                 const char *)
{
    const bool isRefused = action == SQLITE_ATTACH ||
                           action == SQLITE_TRANSACTION ||
                           action == SQLITE_SAVEPOINT;
    return isRefused ? SQLITE_DENY : SQLITE_OK;
}

Failure Refused()
{
    return Failure("only statements that read are run here");
}

Failure Error(sqlite3 *handle)
{
    const int status = sqlite3_errcode(handle);
    return status == SQLITE_AUTH || status == SQLITE_READONLY
               ? Refused()
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

// NULL when the database stayed busy.
StatementPtr Prepare(sqlite3 *handle, const std::string &sql)
{
    sqlite3_stmt *prepared = nullptr;
    const char *rest = nullptr;
    const int status =
        sqlite3_prepare_v2(handle, sql.c_str(), -1, &prepared, &rest);
    StatementPtr statement(prepared);
    if (IsBusy(status))
    {
        return nullptr;
    }
    if (status != SQLITE_OK)
    {
        throw Error(handle);
    }
    if (prepared == nullptr || !IsEnd(handle, rest))
    {
        throw Failure("one statement is wanted");
    }
    if (!sqlite3_stmt_readonly(prepared))
    {
        throw Refused();
    }
    return statement;
}

// SQLite's last status.
int Take(sqlite3_stmt *statement, Grid *pGrid)
{
    const int columns = sqlite3_column_count(statement);
    for (int i = 0; i < columns; ++i)
    {
        pGrid->columns.emplace_back(sqlite3_column_name(statement, i));
    }
    int status = sqlite3_step(statement);
    for (; status == SQLITE_ROW; status = sqlite3_step(statement))
    {
        auto &row = pGrid->rows.emplace_back();
        for (int i = 0; i < columns; ++i)
        {
            row.push_back(ValueAt(statement, i));
        }
    }
    return status;
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
    sqlite3_set_authorizer(opened, RefuseOthers, nullptr);
    *pGrid = {};
    const StatementPtr statement = Prepare(opened, sql);
    const int last = statement ? Take(statement.get(), pGrid) : SQLITE_BUSY;
    if (last != SQLITE_DONE && !IsBusy(last))
    {
        throw Error(opened);
    }
    return last == SQLITE_DONE ? Selected::Done : Selected::Busy;
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
