#include "reconcile/nc_thread.h"

#include "core/cancel.h"
#include "core/guard.h"
#include "core/log.h"
#include "core/sleep.h"
#include "core/state.h"
#include "core/statistics.h"
#include "core/status.h"
#include "reconcile/count_check.h"
#include "reconcile/reloads.h"

#include <malloc.h>
#include <systemd/sd-bus.h>

namespace qdb
{
namespace
{

constexpr char kThreadName[] = "handle_QuillonDB_NC_Event_Request";

// A pause is many short sleeps, so that a stop needs no wake-up.
constexpr int kTurnsBetweenPasses = 1000;
constexpr unsigned kTurnMicroseconds = 5000;

// The thread's own connection, held for its life. Nothing is sent on it but the
// greeting: who never says who he is counts as a stranger to the bus, which
// closes the connection after a while and complains of it in its log.
struct HeldConnection
{
    sd_bus *bus = nullptr;

    HeldConnection()
    {
        if (sd_bus_default_system(&bus) < 0 || !Greet())
        {
            QDB_LOG(kLogWarning, "%s: %s: no connection to the bus\n",
                    kThreadName);
        }
    }
    ~HeldConnection()
    {
        sd_bus_unref(bus);
    }
    HeldConnection(const HeldConnection &) = delete;
    HeldConnection &operator=(const HeldConnection &) = delete;

  private:
    // Waits for the bus for a second at most; false when it has refused.
    bool Greet()
    {
        constexpr int kTurns = 1000000 / kTurnMicroseconds;
        int result = 0;
        for (int turn = 0;
             turn < kTurns && result >= 0 && sd_bus_is_ready(bus) == 0; ++turn)
        {
            result = sd_bus_process(bus, nullptr);
            if (result == 0)
            {
                result = sd_bus_wait(bus, kTurnMicroseconds);
            }
        }
        return result >= 0;
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

// Runs all reloads once. False when the thread is to end, which it does between
// two reloads, never in one. Only the last reload's corruption ends the
// service; what the others find is logged and no more.
bool RunReloads()
{
    RunMemoryReload();
    if (CheckCancelNCThread())
    {
        return false;
    }
    RunFRUReload();
    if (CheckCancelNCThread())
    {
        return false;
    }
    RunKeyReloads();
    if (CheckCancelNCThread())
    {
        return false;
    }
    const int status = RunTypeReload();
    if (CheckCancelNCThread())
    {
        return false;
    }
    if (status == SQLITE_CORRUPT)
    {
        QDB_LOG(kLogTrace, "%s: sempost issued %d\n", status);
        sem_post(&gSqliteCorruptSem);
    }
    return true;
}

// One pass. False when the thread is to end.
bool RunPass()
{
    const uint64_t began = MomentNow();
    Put(Figures().passBegan, began);
    if (!RunReloads())
    {
        return false;
    }
    if (DbusEventsEnabled == 1)
    {
        static_cast<void>(CheckDMObjCountandReCreateEntries());
    }
    malloc_trim(0);
    Count(Figures().passes);
    Put(Figures().passNanoseconds, MomentNow() - began);
    QDB_LOG(kLogPass, "%s: handle_QuillonDB_NC_Event_Request end of loop "
                      "\n");
    return true;
}

void RunPasses()
{
    const HeldConnection connection;
    bool goesOn = true;
    do
    {
        Guard("pass",
              [&]
              {
                  goesOn = RunPass();
              });
    } while (goesOn && PauseBetweenPasses());
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
