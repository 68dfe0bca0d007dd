#include "config/config_load.h"

#include "config/bus_rows.h"
#include "core/gate.h"
#include "core/guard.h"
#include "core/log.h"
#include "core/status.h"
#include "core/threads.h"
#include "db/execute.h"
#include "db/turn.h"
#include "objects/handlers.h"

#include <sys/time.h>

#include <cstring>

namespace qdb
{
namespace
{

// One attempt at an object: the Create of every row of the interface, until
// one of them succeeds. An interface without a row counts as done.
int TryCreate(const char *interfaceName, const DataObjHeader *object,
              const DataObjHeader *parent)
{
    int status = SQLITE_OK;
    bool found = false;
    for (const BusRow &row : DBusObj_Notification_Map_Table)
    {
        if (std::strcmp(row.interfaceName, interfaceName) != 0)
        {
            continue;
        }
        status = CreateObject(*row.row, object, parent);
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
        return nullptr;
    }
    const DataObjHeader *parent =
        GetGroupObject(object, groups->Objects(), pCache);
    if (parent == nullptr)
    {
        QDB_LOG(kLogError, "%s: Couldn't find group: %x %x\n", object->objID,
                object->objType);
    }
    return parent;
}

// Creates all objects; the last failure decides.
int LoadObjects(const char *interfaceName, const ConfigObjectList &objects,
                const ConfigObjectList *groups)
{
    GroupCache cache = nullptr;
    const WorkAhead more;
    int status = SQLITE_OK;
    for (const DataObjHeader *object : objects.Objects())
    {
        if (StopRequested())
        {
            break;
        }
        if (object == nullptr)
        {
            continue;
        }
        const DataObjHeader *parent = FindParent(object, groups, &cache);
        const int last =
            RunStatusLoop({}, status,
                          [&]
                          {
                              return TryCreate(interfaceName, object, parent);
                          });
        if (!IsSuccess(last))
        {
            status = FailureOf(last);
        }
    }
    return status;
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
    const int status = LoadObjects(interfaceName, objects, groups);
    LogDuration(begin);
    return status;
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
