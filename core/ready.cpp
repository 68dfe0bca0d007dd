#include "core/ready.h"

#include "core/log.h"
#include "core/state.h"
#include "core/statistics.h"
#include "core/supervisor.h"
#include "core/waiting.h"
#include "platform/cfgclient.h"

namespace qdb
{
namespace
{

void EnableSignals()
{
    QDB_LOG(kLogTrace, "%s: QDB is ready. Enable sending Dbus events!! \n");
    gQdbReadyRetryPending = 0;
    DbusEventsEnabled = 1;
    Put(Figures().readyRefused, 0);
    Put(Figures().signalsEnabled, 1);
}

int Set(int value)
{
    const Wait wait;
    return CfgSetAttributeInt(kReadyKey, value, 0, 0);
}

// Returns the library's status; a failure is logged under the caller's name.
int SetAttribute(int value, const char *caller)
{
    const int status = Set(value);
    if (status != 0)
    {
        QDB_LOG(kLogWarning,
                "%s: %s: CfgSetAttributeInt failed ret:%d for "
                "%s\n",
                caller, status, kReadyKey);
    }
    return status;
}

} // namespace

void ClearReadiness()
{
    if (SetAttribute(0, "main") == 0)
    {
        QDB_LOG(kLogTrace, "%s: QDB is getting ready. Disable sending Dbus "
                           "events!! \n");
        DbusEventsEnabled = 0;
    }
}

void PublishReadiness()
{
    const int status = Set(1);
    if (status == 0)
    {
        EnableSignals();
        return;
    }
    QDB_LOG(kLogError,
            "%s: %s: CfgSetAttributeInt QDB_READY failed ret:%d for %s\n",
            "main", status, kReadyKey);
    gQdbReadyRetryPending = 1;
    Put(Figures().readyRefused, 1);
}

void RetryReadiness(const char *caller)
{
    if (gQdbReadyRetryPending == 1 && SetAttribute(1, caller) == 0)
    {
        EnableSignals();
        TellStatus("changes announced");
    }
}

void WithdrawReadiness()
{
    SetAttribute(0, "main");
}

} // namespace qdb
