// Removal of object rows, one by one or a table at a time.
//
// Object tables are never deleted from directly: a row leaves ActiveOIDMapping,
// and the cascade of the schema takes the object's row with it.
#pragma once

#include <cstdint>

namespace qdb
{

// Removes all objects of the four configuration tables. Returns 0 or -1.
int ClearCfgMgrData();

// Removes all objects of a type. Returns 0 or -1.
int ClearTblDatabyObjType(uint32_t objType);

// Empties a table. Returns 0 or -1.
int ClearTableData(const char *tableName);

// Removes one object, trying twice. Returns 0, the status of prepare or bind,
// or -1. An OID that isn't mapped is no failure. Takes gDeleteObjectByOIDMutex.
int DeleteObjectByOID(uint32_t oid);

// Removes one object without a word to anyone but the telemetry. Returns 0,
// also when the delete failed, or the status of prepare or bind; -1 without a
// connection. Only under gObjTypeBasedNCMutex, which guards its statement.
int DeleteNCObjsBasedOnOID(uint32_t oid);

// Finalises the statements of the two. No thread may use them any more.
void FinalizeClearingStatements();

} // namespace qdb
