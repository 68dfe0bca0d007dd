#include "reconcile/nc_thread.h"

#include "core/cancel.h"
#include "core/log.h"
#include "core/sleep.h"

#include <pthread.h>
#include <systemd/sd-bus.h>

namespace qdb
{
namespace
{

constexpr char kThreadName[] = "handle_QuillonDB_NC_Event_Request";

// A pause is many short sleeps, so that a stop needs no wake-up.
constexpr int kTurnsBetweenPasses = 1000;
constexpr unsigned kTurnMicroseconds = 5000;

// The thread's own connection, held for its life.
struct HeldConnection
{
    sd_bus *bus = nullptr;

    HeldConnection()
    {
        if (sd_bus_default_system(&bus) < 0)
        {
            QDB_LOG(kLogWarning, "%s: %s: no connection to the bus\n",
                    kThreadName);
        }
    }
    ~HeldConnection()
    {
        sd_bus_unref(bus);
    }
};

// False when the thread is to end.
bool PauseBetweenPasses()
{
    for (int turn = 0; turn < kTurnsBetweenPasses; ++turn)
    {
        if (CheckCancelNCThread())
        {
            return false;
        }
        SleepMicroseconds(kTurnMicroseconds);
    }
    return true;
}

void RunPasses()
{
    const HeldConnection connection;
    while (PauseBetweenPasses())
    {
        QDB_LOG(kLogPass, "%s: handle_QuillonDB_NC_Event_Request end of loop "
                          "\n");
    }
}

} // namespace

void *handle_QuillonDB_NC_Event_Request(void * /*argument*/)
{
    QDB_LOG(kLogTrace, "%s: handle_QuillonDB_NC_Event_Request entry\n");
    RunPasses();
    QDB_LOG(kLogInvalid, "%s: Exit [%s] \n", kThreadName);
    return nullptr;
}

} // namespace qdb
