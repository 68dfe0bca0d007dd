#include "publish/bus_service.h"

#include "core/log.h"
#include "core/statistics.h"
#include "core/supervisor.h"
#include "core/threads.h"
#include "publish/bus_connection.h"

#include <poll.h>

#include <cerrno>

namespace qdb
{
namespace
{

constexpr char kObjectManagerPath[] = "/com/vexo/tarnu";

const sd_bus_vtable kSignalTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_SIGNAL("Vexo_qdb_Resource_Added", "s", 0),
    SD_BUS_SIGNAL("Vexo_qdb_Resource_Changed", "s", 0),
    SD_BUS_SIGNAL("Vexo_qdb_Resource_Removed", "s", 0),
    SD_BUS_SIGNAL("Vexo_shmdb_Resource_Added", "s", 0),
    SD_BUS_VTABLE_END,
};

// Logs what failed; whether `result` is a success.
bool Succeeded(int result, int level, const char *message)
{
    if (result < 0)
    {
        QDB_LOG(level, "%s: %s\n", message);
    }
    return result >= 0;
}

bool Connect()
{
    const BusLock lock;
    sd_bus *bus = nullptr;
    const int result = sd_bus_default_system(&bus);
    if (Succeeded(result, kLogInvalid, "Failed to connect to bus"))
    {
        gBusConnection = bus;
        Put(Figures().busConnected, 1);
    }
    return result >= 0;
}

// Offers the object and attaches the connection to the loop. Steps follow each
// other until one fails.
bool SetUp(sd_bus_slot **pSlot)
{
    const BusLock lock;
    sd_bus *bus = gBusConnection;
    sd_event *loop = nullptr;
    if (!Succeeded(sd_bus_add_object_vtable(bus, pSlot, kSignalPath,
                                            kSignalInterface, kSignalTable,
                                            nullptr),
                   kLogInvalid, "Failed to add object vtable 1") ||
        !Succeeded(sd_bus_add_object_manager(bus, nullptr, kObjectManagerPath),
                   kLogTrace, "Failed to sd_bus_add_object_manager") ||
        !Succeeded(sd_event_default(&loop), kLogInvalid,
                   "Failed to create to sd event"))
    {
        return false;
    }
    gBusEventLoop = loop;
    return Succeeded(sd_bus_attach_event(bus, loop, 0), kLogInvalid,
                     "Failed to attach bus to event") &&
           Succeeded(AddWakeSource(loop), kLogInvalid,
                     "Failed to start event loop");
}

// The only place where the thread can be cancelled: it holds no lock, and no
// call of sd-bus or sd-event runs.
void WaitForEvents(int fd)
{
    pollfd readable = {fd, POLLIN, 0};
    int before = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &before);
    poll(&readable, 1, -1);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
}

// One turn of the loop. Returns its descriptor when it has to wait, -1 when
// there is more to do at once, or a smaller number when the loop has ended or
// failed.
constexpr int kGoOn = -1;
constexpr int kEnded = -2;
constexpr int kBroken = -3;

int RunTurn()
{
    const BusLock lock;
    sd_event *loop = gBusEventLoop;
    if (sd_event_get_state(loop) == SD_EVENT_FINISHED)
    {
        return kEnded;
    }
    int result = sd_event_prepare(loop);
    if (result == 0)
    {
        result = sd_event_wait(loop, 0);
        if (result == 0)
        {
            return sd_event_get_fd(loop);
        }
    }
    if (result > 0)
    {
        result = sd_event_dispatch(loop);
    }
    return result < 0 ? kBroken : kGoOn;
}

// Serves the bus; false when the loop failed.
bool RunLoop()
{
    int turn = kGoOn;
    while (turn >= kGoOn)
    {
        turn = RunTurn();
        if (turn >= 0)
        {
            WaitForEvents(turn);
        }
    }
    return Succeeded(turn == kBroken ? -EIO : 0, kLogInvalid,
                     "Failed to start event loop");
}

// Gives the connection up. Every call accepts what was never made.
void TearDown(sd_bus_slot *slot)
{
    const BusLock lock;
    sd_bus *bus = gBusConnection;
    if (bus != nullptr)
    {
        sd_bus_detach_event(bus);
    }
    RemoveWakeSource();
    gBusEventLoop = sd_event_unref(gBusEventLoop);
    sd_bus_slot_unref(slot);
    sd_bus_unref(bus);
    gBusConnection = nullptr;
    Put(Figures().busConnected, 0);
}

} // namespace

void SeedBusLibrary()
{
    sd_bus *bus = nullptr;
    sd_bus_slot *slot = nullptr;
    if (sd_bus_new(&bus) >= 0)
    {
        sd_bus_add_object_vtable(bus, &slot, kSignalPath, kSignalInterface,
                                 kSignalTable, nullptr);
    }
    sd_bus_slot_unref(slot);
    sd_bus_unref(bus);
}

int DbusMain()
{
    QDB_LOG(kLogTrace, "%s: Entering DbusMain\n");
    sd_bus_slot *slot = nullptr;
    bool good = Connect();
    if (good)
    {
        CreateBusMutex();
        good = SetUp(&slot) && RunLoop();
    }
    QDB_LOG(kLogTrace, "%s: Exiting DbusMain\n");
    TearDown(slot);
    DestroyBusMutex();
    return good ? 0 : 1;
}

void *RunBusServiceThread(void * /*argument*/)
{
    int before = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    QDB_LOG(kLogTrace, "%s: SQLITE_CORRUPT THREAD ACCEPT THREAD ENDED \n");
    DbusMain();
    if (!StopRequested())
    {
        TellStatus("changes not announced: no bus");
    }
    QDB_LOG(kLogTrace, "%s: SQLITE_CORRUPT THREAD ACCEPT THREAD ENDED \n");
    return nullptr;
}

} // namespace qdb
