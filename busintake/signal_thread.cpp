#include "busintake/signal_thread.h"

#include "core/cancel.h"
#include "core/log.h"
#include "core/sleep.h"

namespace qdb
{
namespace
{

constexpr char kThreadName[] = "handle_sdbus_signal_Request_thread";

// Bounds the time to the next look at the cancel flag.
constexpr unsigned kWaitMicroseconds = 1000;

} // namespace

void *handle_sdbus_signal_Request_thread(void * /*argument*/)
{
    QDB_LOG(kLogTrace, "%s: %s: enter.\n", kThreadName);
    QDB_LOG(kLogWarning, "%s: %s: loop started.\n", kThreadName);
    do
    {
        SleepMicroseconds(kWaitMicroseconds);
    } while (!CheckCancelSignalThread());
    return nullptr;
}

} // namespace qdb
