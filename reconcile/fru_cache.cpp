#include "reconcile/fru_cache.h"

#include "core/lock.h"
#include "core/log.h"
#include "db/mapping.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace qdb
{

pthread_mutex_t gReLoadFRUNCMutex = PTHREAD_MUTEX_INITIALIZER;

namespace
{

struct FRUCacheEntry
{
    uint32_t oid;
    // What doesn't fit is cut off; such a number always differs from the
    // object's, which costs a refresh a pass but misses no change.
    char serialNumber[64];
};

constexpr uint32_t kNoOid = 0;

// Guarded by gReLoadFRUNCMutex.
FRUCacheEntry gFRUCache[36]; // oid 0: free
uint8_t g_FRUCacheCount = 0;

// The entry of an OID, a free one for kNoOid; NULL when there is none.
FRUCacheEntry *FindEntry(uint32_t oid)
{
    FRUCacheEntry *entry =
        std::ranges::find(gFRUCache, oid, &FRUCacheEntry::oid);
    return entry == std::end(gFRUCache) ? nullptr : entry;
}

void LogSame(uint32_t oid)
{
    QDB_LOG(kLogTrace,
            "%s: ReLoadFRUNCObjects: OID = %x found and cache not changed, "
            "refresh skipped\n",
            oid);
}

bool AddEntry(uint32_t oid, const char *serialNumber)
{
    FRUCacheEntry *entry = FindEntry(kNoOid);
    if (entry == nullptr)
    {
        return false;
    }
    entry->oid = oid;
    std::snprintf(entry->serialNumber, sizeof(entry->serialNumber), "%s",
                  serialNumber);
    QDB_LOG(kLogTrace,
            "%s: ReLoadFRUNCObjects: OID = %x not found in cache adding in "
            "cache SerialNum = %s\n",
            oid, serialNumber);
    ++g_FRUCacheCount;
    return true;
}

} // namespace

bool WatchFRU(uint32_t oid, const char *serialNumber)
{
    const FRUCacheEntry *entry = FindEntry(oid);
    if (entry == nullptr)
    {
        return AddEntry(oid, serialNumber);
    }
    if (std::strcmp(entry->serialNumber, serialNumber) == 0)
    {
        LogSame(oid);
        return false;
    }
    QDB_LOG(kLogTrace,
            "%s: ReLoadFRUNCObjects: OID = %x found in cache SerialNum value "
            "changed refresh initiated\n",
            oid);
    QDB_LOG(kLogTrace, "%s: Object SerialNum = %s Cache SerialNum=%s\n",
            serialNumber, entry->serialNumber);
    // Followed by the words of an unchanged one, which readers know to expect.
    LogSame(oid);
    return true;
}

void LogFRUCache()
{
    if (g_FRUCacheCount == 0)
    {
        return;
    }
    for (const FRUCacheEntry &entry : gFRUCache)
    {
        if (entry.oid != kNoOid)
        {
            QDB_LOG(kLogTrace,
                    "%s: Cache: g_FRUCacheCount=%d, OID=%d, SerialNum=%s",
                    g_FRUCacheCount, StoredOid(entry.oid), entry.serialNumber);
        }
    }
}

void ClearFRUCacheEntry(uint32_t oid)
{
    const MutexLock lock(gReLoadFRUNCMutex);
    FRUCacheEntry *entry =
        g_FRUCacheCount == 0 || oid == kNoOid ? nullptr : FindEntry(oid);
    if (entry != nullptr)
    {
        QDB_LOG(kLogTrace,
                "%s: FRU PCISSD with OID: %X deleted. Clear cached data \n",
                oid);
        *entry = {};
        --g_FRUCacheCount;
    }
}

} // namespace qdb
