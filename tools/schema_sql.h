// The database file, made from the column lists that the service binds from.
//
// The service itself holds no table definitions and creates no table; what it
// needs from the file stands here: the mapping tables, one table per object
// table of the catalogue, the side tables of the array properties, and a tag
// row per object table. All of it hangs on ActiveOIDMapping by cascading
// foreign keys, because the service removes an object by deleting its mapping
// row and nothing else. Each of those tables therefore has an index that begins
// with the OID, or a delete would scan every table of the file.
//
// To add a column or a table: change the lists in objects/schema/, and count
// kSchemaVersion up. Files are not migrated; the mirror is filled anew at each
// start, so a new file is made.
#pragma once

#include "objects/schema/table.h"

#include <string>
#include <vector>

namespace qdb
{

// PRAGMA user_version of the files made here.
inline constexpr int kSchemaVersion = 1;

// Every object table once, sorted by name.
std::vector<const Table *> ObjectTables();

// The whole schema as one SQL script, in a transaction of its own.
std::string SchemaSql();

// Makes the database file `path`. It appears whole or not at all: the work is
// done in a file beside it that takes its name at the end. An existing file is
// replaced if `force`, together with a journal that lies beside it; otherwise
// it is left alone and the call fails. Returns false and says why in *pError;
// nothing new is left behind then.
bool CreateDatabase(const std::string &path, bool force, std::string *pError);

} // namespace qdb
