#include "client/select.h"

#include "client/statement.h"

#include <unistd.h>

#include <cerrno>

namespace qdb::client
{
namespace
{

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

int Refuse(std::string *pError)
{
    *pError = "only statements that read are run here";
    return -EPERM;
}

int Fail(sqlite3 *handle, std::string *pError)
{
    const int status = sqlite3_errcode(handle);
    if (status == SQLITE_AUTH || status == SQLITE_READONLY)
    {
        return Refuse(pError);
    }
    *pError = sqlite3_errmsg(handle);
    return status == SQLITE_ERROR ? -EINVAL : ResultOf(status);
}

// Nothing but space and comments.
bool IsEnd(sqlite3 *handle, const char *sql)
{
    sqlite3_stmt *more = nullptr;
    const int status = sqlite3_prepare_v2(handle, sql, -1, &more, nullptr);
    const StatementPtr owner(more);
    return status == SQLITE_OK && more == nullptr;
}

int Prepare(sqlite3 *handle, const char *sql, StatementPtr *pStatement,
            std::string *pError)
{
    sqlite3_stmt *prepared = nullptr;
    const char *rest = nullptr;
    const int status = sqlite3_prepare_v2(handle, sql, -1, &prepared, &rest);
    pStatement->reset(prepared);
    if (status != SQLITE_OK)
    {
        return Fail(handle, pError);
    }
    if (prepared == nullptr || !IsEnd(handle, rest))
    {
        *pError = "one statement is wanted";
        return -EINVAL;
    }
    return sqlite3_stmt_readonly(prepared) != 0 ? 0 : Refuse(pError);
}

// As SQL writes it.
std::string Hex(sqlite3_stmt *statement, int column)
{
    constexpr const char *kDigits = "0123456789abcdef";
    std::string text = "x'";
    for (const char byte : TextAt(statement, column))
    {
        text += kDigits[static_cast<unsigned char>(byte) >> 4];
        text += kDigits[byte & 15];
    }
    return text + '\'';
}

Value ResultAt(sqlite3_stmt *statement, int column)
{
    return sqlite3_column_type(statement, column) == SQLITE_BLOB
               ? Value{QDB_TEXT, 0, 0, Hex(statement, column)}
               : ValueAt(statement, column);
}

// Returns SQLite's last status.
int Take(sqlite3_stmt *statement, qdb_result *pResult)
{
    Table &table = pResult->table;
    const int columns = sqlite3_column_count(statement);
    for (int i = 0; i < columns; ++i)
    {
        table.columns.emplace_back(sqlite3_column_name(statement, i));
    }
    table.oid = table.Find("OID");
    int status = sqlite3_step(statement);
    for (; status == SQLITE_ROW; status = sqlite3_step(statement))
    {
        qdb_row &row = pResult->rows.emplace_back();
        row.table = &table;
        for (int i = 0; i < columns; ++i)
        {
            row.values.push_back(ResultAt(statement, i));
        }
        row.oid =
            table.oid < row.values.size() ? row.values[table.oid].integer : 0;
    }
    return status;
}

} // namespace

int Select(const std::string &path, int busyMs, const char *sql,
           qdb_result *pResult, std::string *pError)
{
    pError->clear();
    sqlite3 *opened = nullptr;
    const int status =
        sqlite3_open_v2(path.c_str(), &opened,
                        SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    const DatabasePtr handle(opened);
    if (status != SQLITE_OK)
    {
        *pError = sqlite3_errmsg(opened);
        return access(path.c_str(), F_OK) != 0 ? -ENODATA : -EIO;
    }
    sqlite3_busy_timeout(opened, busyMs);
    sqlite3_set_authorizer(opened, RefuseOthers, nullptr);
    StatementPtr statement;
    if (const int result = Prepare(opened, sql, &statement, pError))
    {
        return result;
    }
    return Take(statement.get(), pResult) == SQLITE_DONE ? 0
                                                         : Fail(opened, pError);
}

} // namespace qdb::client

using qdb::client::Value;

extern "C"
{

    void qdb_result_free(qdb_result *result)
    {
        delete result;
    }

    size_t qdb_result_columns(const qdb_result *result)
    {
        return result->table.columns.size();
    }

    const char *qdb_result_name(const qdb_result *result, size_t column)
    {
        return result->table.columns[column].c_str();
    }

    size_t qdb_result_count(const qdb_result *result)
    {
        return result->rows.size();
    }

    const qdb_row *qdb_result_row(const qdb_result *result, size_t i)
    {
        return &result->rows[i];
    }
}
