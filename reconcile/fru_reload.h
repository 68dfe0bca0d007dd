// The reload of the FRUs of PCIe SSDs, whose serial numbers may change without
// an event. What is known of them, the serial number that each had when it was
// first seen, for 36 of them, lives as long as the process.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace qdb
{

// Guards what is known. Held by callers of the reload.
extern pthread_mutex_t gReLoadFRUNCMutex;

// Reads all FRUs again and refreshes the rows of those that are new or have
// another serial number. Returns 0; 256 when the list or an object was missing;
// -1 when a refresh failed, even by a corrupt database.
int ReLoadFRUNCObjects();

// Forgets a deleted FRU. Takes gReLoadFRUNCMutex, and so waits for a pass of
// the reload to end.
void ClearFRUCacheEntry(uint32_t oid);

} // namespace qdb
