// A row of the database as a JSON object.
//
// What the service announces is always read back through here: a listener gets
// exactly what a reader of the table would see. A column's JSON type is its
// storage class.
#pragma once

#include "core/json.h"
#include "objects/catalogue.h"

namespace qdb
{

// Reads an object's row, by the reader that its table needs. Returns 0 and sets
// *pRow; 101 when there is no row; 11 for a corrupt database; any other value
// is a failure. *pRow stays untouched unless a row was read. Takes the row's
// SelectObjMutex.
int ReadRow(const ObjTypeRow &row, uint32_t oid, JsonPtr *pRow);

// Runs a query with one parameter, the OID, and makes an object of its first
// row's columns; the statement is made for the call. Integers are cut to 32
// bits, blobs are left out. Returns as ReadRow. sqlText may be NULL, which
// fails.
int GetJsonObjectFromQDBQuery(const char *sqlText, uint32_t oid, JsonPtr *pRow);

// Column 0 of a statement's row, parsed; NULL, with *pError set, when it isn't
// JSON, and NULL with an empty error when the column is NULL.
JsonPtr ParseColumn(sqlite3_stmt *statement, json_error_t *pError);

} // namespace qdb
