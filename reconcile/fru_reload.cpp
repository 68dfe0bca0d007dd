#include "reconcile/fru_reload.h"

#include "core/fate.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/platform_ptr.h"
#include "core/status.h"
#include "db/mapping.h"
#include "objects/handlers.h"
#include "objects/object_loop.h"
#include "objects/object_view.h"
#include "objects/parents.h"

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

// Whether a FRU with this serial number is to be refreshed: when it is new, and
// then it is kept, or when the number isn't the one kept, which stays. A new
// one that finds no room goes unwatched. The number ends in a NUL.
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

// One line per FRU that is kept.
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

constexpr size_t kSerialNumberWordAt = 0x1D;

// "" where there is none that ends inside the object.
const char *TextAt(const DataObjHeader *pDOH, size_t wordAt)
{
    return ObjectView(pDOH).TextOfWord(wordAt).value_or("").data();
}

// Refreshes one FRU in a status loop; one that cannot be read as it stands is
// fetched again, and again while it is gone. That it was gone stays the pass's
// status, also when it came back, so that this isn't RunOnObject's loop.
void RefreshWithRetry(uint32_t oid, ObjectPtr object,
                      const DataObjHeader *parent, int *pStatus)
{
    const FetchesAgain fetchesAgain;
    const int status = RunStatusLoop(
        {}, *pStatus,
        [&]
        {
            if (object == nullptr)
            {
                return ZO_STATUS_INVALID_VALUE;
            }
            const int result =
                RefreshObject(RowOf(Reload::Fru), object.get(), parent);
            QDB_LOG(kLogTrace,
                    "%s: ReLoadFRUNCObjects: RefreshObjFP retval=%d \n",
                    result);
            return result;
        },
        [&]
        {
            QDB_LOG(kLogTrace, "%s: ReLoadFRUNCObjects: "
                               "ZO_STATUS_INVALID_VALUE returned\n");
            object.reset();
            object = FetchObject(oid);
            if (object == nullptr)
            {
                *pStatus = ZO_STATUS_NO_SUCH_OBJECT;
            }
            return ZO_STATUS_INVALID_VALUE;
        });
    if (!IsSuccess(status))
    {
        *pStatus = kFailed;
    }
}

void VisitFru(uint32_t oid, int *pStatus)
{
    const BookEntry entry(Road::Reload);
    ObjectPtr object = FetchListed("ReLoadFRUNCObjects", oid, pStatus);
    if (object == nullptr)
    {
        return;
    }
    const char *key = TextAt(object.get(), kKeyWordAt);
    if (std::strstr(key, "Disk.Bay") == nullptr)
    {
        return;
    }
    QDB_LOG(kLogTrace, "%s: PCISSD Obj Present: %s\n", key);
    const bool refresh =
        WatchFRU(oid, TextAt(object.get(), kSerialNumberWordAt));
    const ObjectPtr parent =
        FetchParent(object.get(), nullptr, "ReLoadFRUNCObjects ");
    if (!refresh)
    {
        NoteFate(Fate::Unchanged);
        QDB_LOG(kLogTrace,
                "%s: ReLoadFRUNCObjects: OID = %x Refresh skipped as cached "
                "data is same\n",
                oid);
        return;
    }
    RefreshWithRetry(oid, std::move(object), parent.get(), pStatus);
}

int VisitFrus()
{
    const OidList list = ListChildren(RowOf(Reload::Fru).objType);
    if (list.IsNull())
    {
        return ZO_STATUS_NO_SUCH_OBJECT;
    }
    int status = SQLITE_OK;
    for (const uint32_t oid : list.Oids())
    {
        VisitFru(oid, &status);
    }
    return status;
}

} // namespace

int ReLoadFRUNCObjects()
{
    QDB_LOG(kLogTrace, "%s: Entering ReLoadFRUNCObjects \n");
    const int status = VisitFrus();
    LogFRUCache();
    QDB_LOG(kLogTrace, "%s: Exiting ReLoadFRUNCObjects \n");
    return status;
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
