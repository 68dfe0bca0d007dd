// SQLite's handles, and the values of its rows.
#pragma once

#include "client/row.h"

#include <sqlite3.h>

#include <memory>
#include <string>

namespace qdb::client
{

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

// Resets on every way out: a statement that is left open keeps the service from
// writing. NULL is fine.
struct Reset
{
    sqlite3_stmt *statement;
    ~Reset()
    {
        sqlite3_reset(statement);
    }
};

// A name as SQL.
std::string Quoted(const std::string &name);

// 0, -EBUSY or -EIO for a status of SQLite.
int ResultOf(int status);

// A column of the row that a statement stands at; "" for NULL.
std::string TextAt(sqlite3_stmt *statement, int column);
Value ValueAt(sqlite3_stmt *statement, int column);

} // namespace qdb::client
