// What the count check asks the database.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qdb
{

// Stores what a query for one integer yields. Returns 0; -1 without a
// connection or a row; the status of a failed prepare. *pCount stays unless a
// row was read.
int DB_Count_Sql_Helper(int *pCount, const char *query);

// Stores the number of rows to compare with the Data Manager's objects: one too
// many if two rows share a key, so that such a table never agrees. tblName is
// what follows FROM. Returns as DB_Count_Sql_Helper.
int CheckDMPopCountInDB(int *pCount, const char *tblName,
                        const char *keyColumn);

// The low byte of popStatus in the row of a 0x1001 object; 255 when it can't be
// read, 0 without a row.
uint8_t GetPopulatorPopstatus(uint32_t oid);

// Copies a text column of an object's row, cut to 255 bytes and a NUL. Returns
// 0, or -1 without a row or a text.
inline constexpr size_t kTextBufferSize = 256;
int GetTextfromTable(const char *table, const char *column, uint32_t oid,
                     char (&buffer)[kTextBufferSize]);

} // namespace qdb
