// What is known of the FRUs that were read last, so that only real changes are
// written.
#pragma once

#include <cstdint>

namespace qdb
{

// Forgets a deleted FRU. Takes gReLoadFRUNCMutex, and so waits for a pass of
// the FRU reload to end.
void ClearFRUCacheEntry(uint32_t oid);

} // namespace qdb
