// An owner for a prepared statement, whoever prepared it.
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

} // namespace qdb
