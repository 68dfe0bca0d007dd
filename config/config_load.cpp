#include "config/config_load.h"

#include "config/bus_rows.h"
#include "core/fate.h"
#include "core/gate.h"
#include "core/guard.h"
#include "core/log.h"
#include "core/object_order.h"
#include "core/status.h"
#include "core/threads.h"
#include "db/execute.h"
#include "db/turn.h"
#include "objects/handlers.h"

#include <sys/time.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace qdb
{
namespace
{

// The attributes of one interface on their way into the tables.
struct Load
{
    const char *interfaceName;
    const ConfigObjectList *groups; // NULL: without parents
    GroupCache cache = nullptr;
    int status = SQLITE_OK; // the last failure decides

    // Whose rows show, or lack, something newer than the list.
    std::vector<uint32_t> outOfDate = {};
};

// One attempt at an object: the Create of every row of the interface, until
// one of them succeeds. An interface without a row counts as done.
int TryCreate(Load &load, const DataObjHeader *object,
              const DataObjHeader *parent)
{
    const FetchesAgain fetchesAgain;
    int status = SQLITE_OK;
    bool found = false;
    for (const BusRow &row : DBusObj_Notification_Map_Table)
    {
        if (std::strcmp(row.interfaceName, load.interfaceName) != 0)
        {
            continue;
        }
        status = CreateObject(*row.row, object, parent);
        if (fetchesAgain.Refused())
        {
            load.outOfDate.push_back(object->objID);
            NoteFate(Fate::PassedOn);
            return SQLITE_OK;
        }
        if (status == SQLITE_OK)
        {
            return status;
        }
        found = true;
        if (status == ZO_STATUS_INVALID_VALUE)
        {
            QDB_LOG(kLogError, "%s: Create failure: %d %x %x\n", status,
                    object->objID, object->objType);
        }
    }
    if (!found)
    {
        QDB_LOG(kLogError, "%s: Couldn't find objType: %x %x\n", object->objID,
                object->objType);
    }
    return status;
}

const DataObjHeader *FindParent(const DataObjHeader *object,
                                const ConfigObjectList *groups,
                                GroupCache *pCache)
{
    if (groups == nullptr || groups->IsNull())
    {
        NoteLack();
        return nullptr;
    }
    const DataObjHeader *parent =
        GetGroupObject(object, groups->Objects(), pCache);
    if (parent == nullptr)
    {
        NoteLack();
        QDB_LOG(kLogError, "%s: Couldn't find group: %x %x\n", object->objID,
                object->objType);
    }
    return parent;
}

void LoadObject(Load &load, const DataObjHeader *object, uint64_t asked)
{
    const DataObjHeader *parent = FindParent(object, load.groups, &load.cache);
    const int last = RunStatusLoop({}, load.status,
                                   [&]
                                   {
                                       NoteFetch(object, asked);
                                       return TryCreate(load, object, parent);
                                   });
    if (!IsSuccess(last))
    {
        load.status = FailureOf(last);
    }
}

// Creates the objects of a list, all or those of `oids`.
void LoadObjects(Load &load, const ConfigObjectList &list,
                 const std::vector<uint32_t> *oids)
{
    const WorkAhead more;
    for (const DataObjHeader *object : list.Objects())
    {
        if (StopRequested())
        {
            break;
        }
        if (object != nullptr &&
            (oids == nullptr ||
             std::ranges::find(*oids, object->objID) != oids->end()))
        {
            const BookEntry entry(Road::Population);
            // Want of memory costs this object, not the rest of the list.
            int status = kNoMemory;
            Guard("a configuration object",
                  [&]
                  {
                      LoadObject(load, object, list.Asked());
                      status = SQLITE_OK;
                  });
            load.status = status == SQLITE_OK ? load.status : status;
        }
    }
}

// What was told of while the list was worked off is taken from a newer list.
void LoadOutOfDate(Load &load)
{
    for (int attempt = 0; attempt < kAttempts && !load.outOfDate.empty();
         ++attempt)
    {
        const std::vector<uint32_t> oids = std::exchange(load.outOfDate, {});
        ConfigObjectList newer;
        if (newer.Fetch(load.interfaceName) != 0)
        {
            load.status = ZO_STATUS_NO_SUCH_OBJECT;
            return;
        }
        load.cache = nullptr;
        LoadObjects(load, newer, &oids);
    }
    if (!load.outOfDate.empty())
    {
        QDB_LOG(kLogError, "%s: %s: %zu objects change faster than they load\n",
                load.interfaceName, load.outOfDate.size());
    }
}

void LogDuration(const timeval &begin)
{
    timeval end = {};
    gettimeofday(&end, nullptr);
    const float seconds = static_cast<float>(end.tv_sec - begin.tv_sec);
    const float microseconds = static_cast<float>(end.tv_usec - begin.tv_usec);
    const float milliseconds = seconds * 1000.0F + microseconds / 1000.0F;
    QDB_LOG(kLogError, "%s: Timestamp: [%f (ms)]",
            static_cast<double>(milliseconds));
}

void ReloadAll()
{
    QDB_LOG(kLogTrace, "%s: DM DETACHED!! -Reload Config Objects!\n");
    ConfigObjectList groups;
    if (groups.Fetch(kConfigGroup) != 0)
    {
        QDB_LOG(kLogError, "%s: Objects not found: CfgGroup 1\n");
        return;
    }
    int status = SQLITE_OK;
    for (const BusRow &row : DBusObj_Notification_Map_Table)
    {
        status |= OnLoadConfigObjectsCreation(row.interfaceName, &groups);
    }
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace,
                "%s: DM DETACHED!! Reload Config Objects - failed "
                "status:%d!\n",
                status);
    }
    else
    {
        QDB_LOG(kLogTrace,
                "%s: DM DETACHED!! Reload Config Objects - Completed!\n");
    }
}

} // namespace

int OnLoadConfigObjectsCreation(const char *interfaceName,
                                const ConfigObjectList *groups)
{
    timeval begin = {};
    gettimeofday(&begin, nullptr);
    ConfigObjectList objects;
    if (objects.Fetch(interfaceName) != 0 || objects.IsNull())
    {
        QDB_LOG(kLogError, "%s: Objects not found: %s\n", interfaceName);
        return ZO_STATUS_NO_SUCH_OBJECT;
    }
    Load load = {interfaceName, groups};
    LoadObjects(load, objects, nullptr);
    LoadOutOfDate(load);
    LogDuration(begin);
    return load.status;
}

void *ReloadConfigObjectsThread(void * /*argument*/)
{
    Guard("configuration reload",
          []
          {
              ReloadAll();
          });
    LeaveGate();
    return nullptr;
}

} // namespace qdb
