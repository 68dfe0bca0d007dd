#include "reconcile/fru_cache.h"

#include "core/lock.h"
#include "core/log.h"

#include <algorithm>

namespace qdb
{
namespace
{

struct FruCacheEntry
{
    uint32_t oid;
    char serialNumber[64];
};

// All guarded by gReLoadFRUNCMutex.
pthread_mutex_t gReLoadFRUNCMutex = PTHREAD_MUTEX_INITIALIZER;
FruCacheEntry g_FRUCache[36];
uint8_t g_FRUCacheCount = 0;

} // namespace

void ClearFRUCacheEntry(uint32_t oid)
{
    const MutexLock lock(gReLoadFRUNCMutex);
    if (g_FRUCacheCount == 0)
    {
        return;
    }
    FruCacheEntry *entry =
        std::ranges::find(g_FRUCache, oid, &FruCacheEntry::oid);
    if (entry != std::end(g_FRUCache))
    {
        QDB_LOG(kLogTrace,
                "%s: FRU PCISSD with OID: %X deleted. Clear cached data \n",
                oid);
        *entry = {};
        --g_FRUCacheCount;
    }
}

} // namespace qdb
