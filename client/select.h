// Statements of the caller's own.
#pragma once

#include "client/row.h"

#include <string>
#include <vector>

// What the C interface gives out. Rows point to the table, which stands for the
// columns that the statement gives.
struct qdb_result
{
    qdb::client::Table table = {};
    std::vector<qdb_row> rows = {};
};

namespace qdb::client
{

// Runs one statement that only reads, on a connection of its own, since a
// PRAGMA stays with that. The database is free again when this returns. Returns
// 0, -ENODATA without a file, -EBUSY, -EPERM for a statement that does more
// than read, -EINVAL for a wrong one, -EIO. *pError says what is wrong with the
// statement or the file; pResult is whole or of no use.
int Select(const std::string &path, int busyMs, const char *sql,
           qdb_result *pResult, std::string *pError);

} // namespace qdb::client
