// One-shot statements by which the reloads and the count check look into the
// database.
#pragma once

#include "db/statement.h"

#include <cstdint>

namespace qdb
{

// Prepares a query; NULL, with the reason logged, without a connection or when
// that fails. *pStatus gets the result, -1 without a connection.
StatementPtr PrepareLookUp(const char *sql, int *pStatus);

// Runs a query with one parameter, the OID, with execute_statement; NULL when
// that failed. A query without a row succeeds; it has no columns to read then.
StatementPtr LookUp(const char *sql, uint32_t oid);

// The first column of a query that LookUp ran, 0 without a row.
int FirstInteger(sqlite3_stmt *statement);

} // namespace qdb
