// Whether an attribute has a row.
#pragma once

namespace qdb
{

// Store 1 if the table has a row with the key, else 0. Return 0; -1 without a
// connection or when the look-up failed; SQLite's status when it can't be
// prepared. Otherwise *pCount stays. Each takes a mutex of its own.
int CheckCfgNCIntObjPresenceInDB(const char *key, int *pCount);
int CheckCfgNCStrObjPresenceInDB(const char *key, int *pCount);

// Finalises the statements of both. No thread may use them any more.
void FinalizePresenceChecks();

} // namespace qdb
