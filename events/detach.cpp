#include "events/detach.h"

#include "config/config_load.h"
#include "core/gate.h"
#include "core/log.h"
#include "core/state.h"
#include "core/statistics.h"
#include "core/threads.h"
#include "db/clearing.h"
#include "publish/telemetry.h"
#include "reconcile/population.h"

namespace qdb
{
namespace
{

constexpr uint32_t kRootData = 0x0900;

// Row deletes aren't reported one by one while this lives.
struct DetachClearing
{
    DetachClearing()
    {
        gDMDetachClearing = 1;
    }
    ~DetachClearing()
    {
        gDMDetachClearing = 0;
    }
};

struct ThreadAttributes
{
    pthread_attr_t value;
    int status;

    ThreadAttributes() : status(pthread_attr_init(&value))
    {
    }
    ~ThreadAttributes()
    {
        if (status == 0)
        {
            pthread_attr_destroy(&value);
        }
    }
};

void StartReload()
{
    QDB_LOG(kLogTrace, "%s: Creating a thread to repopulate Config "
                       "Attributes\n");
    ThreadAttributes attributes;
    if (attributes.status != 0)
    {
        QDB_LOG(kLogTrace, "%s: Init thread attribute failed%d\n",
                attributes.status);
        return;
    }
    int status =
        pthread_attr_setdetachstate(&attributes.value, PTHREAD_CREATE_DETACHED);
    if (status != 0)
    {
        QDB_LOG(kLogTrace,
                "%s:  Can not set the PTHREAD_CREATE_DETACHED = %d\n", status);
        return;
    }
    pthread_t thread;
    EnterGateForOther();
    status = CreateThread(&thread, &attributes.value, ReloadConfigObjectsThread,
                          nullptr);
    if (status != 0)
    {
        LeaveGate();
        QDB_LOG(kLogTrace, "%s:  Create Config Reload thread failed ret: %d\n",
                status);
    }
}

} // namespace

void HandleDetach()
{
    QDB_LOG(kLogTrace, "%s: DM Detached!!! Clear all DB tables\n");
    Put(Figures().detachedSince, MomentNow());
    const DetachClearing clearing;
    ClearTableData("ActiveOIDMapping");
    QDB_LOG(kLogTrace, "%s: DM Detached!!! Cleared all DB tables\n");
    for (const char *table : TelemetryDetachTableList)
    {
        PublishTableGone(table);
    }
    InsertObjBasedOnObjType(kRootData);
    StartReload();
}

} // namespace qdb
