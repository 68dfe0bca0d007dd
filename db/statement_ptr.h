// Owners for a prepared statement and for a connection, whoever made them.
#pragma once

#include <sqlite3.h>

#include <memory>

namespace qdb
{

struct FinalizeStatement
{
    void operator()(sqlite3_stmt *statement) const
    {
        sqlite3_finalize(statement);
    }
};
using StatementPtr = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// For connections that end with their user; the service's own has its order of
// closing.
struct CloseConnection
{
    void operator()(sqlite3 *connection) const
    {
        sqlite3_close(connection);
    }
};
using ConnectionPtr = std::unique_ptr<sqlite3, CloseConnection>;

} // namespace qdb
