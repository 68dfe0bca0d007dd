#include "reconcile/reloads.h"

#include "config/key_reload.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/status.h"
#include "reconcile/fru_reload.h"
#include "reconcile/key_reload.h"
#include "reconcile/memory_reload.h"
#include "reconcile/type_reload.h"

namespace qdb
{
namespace
{

void LogStatus(const char *function, int status)
{
    QDB_LOG(kLogTrace, "%s: %s failed with status %d\n", function, status);
}

// Returns the status that it was given.
int LogFailure(const char *function, int status)
{
    if (status != SQLITE_OK)
    {
        LogStatus(function, status);
    }
    return status;
}

} // namespace

int RunMemoryReload()
{
    const MutexLock lock(gReLoadNCMutex);
    return LogFailure("ReLoadNCObjects", ReLoadNCObjects());
}

int RunFRUReload()
{
    const MutexLock lock(gReLoadFRUNCMutex);
    return LogFailure("ReLoadFRUNCObjects", ReLoadFRUNCObjects());
}

void RunKeyReloads()
{
    const MutexLock lock(gReLoadKeyBasedNCMutex);
    LogFailure("ReLoadKeyBasedNCObjects", ReLoadKeyBasedNCObjects());
    LogFailure("ReLoadCfgKeyBasedNCObjects", ReLoadCfgKeyBasedNCObjects());
}

int RunKeyReload()
{
    const MutexLock lock(gReLoadKeyBasedNCMutex);
    return ReLoadKeyBasedNCObjects();
}

int RunTypeReload()
{
    const MutexLock lock(gObjTypeBasedNCMutex);
    const int status = ObjTypeBasedNCObjects();
    LogStatus("ObjTypeBasedNCObjects", status);
    return status;
}

} // namespace qdb
