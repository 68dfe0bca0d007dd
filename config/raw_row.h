// Raw data as the value of a string attribute's row.
#pragma once

namespace qdb
{

// Makes the text the CurrentValue of the key's row, marks the row as raw data,
// and announces the row as changed, even when it had that value before. The key
// is compared in whatever case; a value that is NULL, empty or too long for
// SQLite clears the column. Needs the connection. Returns 0; 101 for a key
// without a row, where nothing is written; a status of SQLite or -1 when a read
// or the write failed. What is written stays written when the row can't be read
// back; only the announcement is lost. Statements are made for each call, since
// imports are rare and their values large. Takes the RefreshObjMutex of string
// attributes.
int ImportRawValue(const char *key, const char *value);

} // namespace qdb
