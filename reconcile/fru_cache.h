// What is known of the PCIe SSDs' FRUs: the serial number that each had when it
// was first seen, for 36 of them. Lives as long as the process.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace qdb
{

// Guards the cache. Held by callers of all functions but ClearFRUCacheEntry.
extern pthread_mutex_t gReLoadFRUNCMutex;

// Whether a FRU with this serial number is to be refreshed: when it is new, and
// then it is kept, or when the number isn't the one kept, which stays. A new
// one that finds no room goes unwatched. The number ends in a NUL.
bool WatchFRU(uint32_t oid, const char *serialNumber);

// One line per FRU that is kept.
void LogFRUCache();

// Forgets a deleted FRU. Takes gReLoadFRUNCMutex, and so waits for a pass of
// the FRU reload to end.
void ClearFRUCacheEntry(uint32_t oid);

} // namespace qdb
