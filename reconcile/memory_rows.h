// What the memory reload asks the database.
#pragma once

#include "core/platform_ptr.h"

#include <cstdint>

namespace qdb
{

// The key of a memory device's row; NULL when there is no row, key or memory.
std::unique_ptr<char, CFree> GetKeyForDIMM(uint32_t oid);

// The power state in the row of a power object; 0 when there is none.
uint8_t GetHostPowerSate(uint32_t oid);

// Stores the number of rows of power objects. Returns 0; -1 without a
// connection or a row to read; the status of a failed prepare. *pCount stays
// unless a row was read.
int CheckHostPowerSulpplyObjCountInDB(int *pCount);

} // namespace qdb
