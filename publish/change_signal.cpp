#include "publish/change_signal.h"

#include "core/log.h"
#include "core/state.h"
#include "core/statistics.h"
#include "publish/bus_connection.h"

namespace qdb
{
namespace
{

enum ChangeSignalKind
{
    kAdded = 1,
    kChanged = 2,
    kRemoved = 3,
};

// The test of readiness and the sending belong to one hold of the lock.
int SendChange(const char *jsonText, ChangeSignalKind kind)
{
    if (jsonText != nullptr)
    {
        QDB_LOG(kLogTrace, "%s: buffer =%s\n", jsonText);
    }
    const BusLock lock;
    if (jsonText != nullptr && DbusEventsEnabled != 0)
    {
        send_dbus_signal(jsonText, kind);
    }
    else
    {
        CountOne(Figures().signals, SignalEnd::NotReady);
    }
    return 0;
}

} // namespace

int ChangeJsonAdded(const char *jsonText)
{
    return SendChange(jsonText, kAdded);
}

int ChangeJsonChanged(const char *jsonText)
{
    return SendChange(jsonText, kChanged);
}

int ChangeJsonRemoved(const char *jsonText)
{
    return SendChange(jsonText, kRemoved);
}

} // namespace qdb
