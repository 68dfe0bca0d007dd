// The reader for rows whose table is too wide for SQLite to make an object of.
#pragma once

#include "objects/row_reader.h"

namespace qdb
{

// Runs a query with one parameter, the OID, and takes its first row's columns.
// Integers are cut to 32 bits, blobs are left out. The statement is made at the
// row's first query and kept. Returns as ReadRow, or -1 without a database;
// *pRow is set whenever a row was found. sqlText may be NULL, which fails.
// Takes the row's SelectObjMutex.
int GetJsonObjectFromQDBQuery(const ObjTypeRow &row, const char *sqlText,
                              uint32_t oid, RowReading *pRow);

} // namespace qdb
