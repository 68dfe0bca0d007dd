#include "publish/bus_connection.h"

#include "core/log.h"
#include "core/statistics.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace qdb
{

std::atomic<sd_bus *> gBusConnection = nullptr;
std::atomic<sd_event *> gBusEventLoop = nullptr;

namespace
{

pthread_mutex_t gBusMutex = PTHREAD_MUTEX_INITIALIZER;

// Serialises the senders, too, for the platform's eyes. Guarded by gBusMutex.
ZOMutex *gNamedPipeJsonMutex = nullptr;

// Both guarded by gBusMutex.
int gWakeFd = -1;
sd_event_source *gWakeSource = nullptr;

// Signals that may wait in the connection before a sender waits for the bus.
constexpr uint64_t kQueueLimit = 1024;

uint64_t QueuedMessages(sd_bus *bus)
{
    uint64_t queued = 0;
    return sd_bus_get_n_queued_write(bus, &queued) < 0 ? 0 : queued;
}

// Lets the connection write while more than `limit` messages are queued, at
// most timeoutMs.
void DrainTo(sd_bus *bus, uint64_t limit, int timeoutMs)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (QueuedMessages(bus) > limit)
    {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - Clock::now());
        if (left.count() <= 0)
        {
            return;
        }
        pollfd writable = {sd_bus_get_fd(bus), POLLOUT, 0};
        poll(&writable, 1, static_cast<int>(left.count()));
        if (sd_bus_process(bus, nullptr) < 0)
        {
            return;
        }
    }
}

// Bytes that the socket didn't take are the loop's to send.
void WakeLoop()
{
    const uint64_t one = 1;
    if (gWakeFd >= 0 && write(gWakeFd, &one, sizeof(one)) < 0)
    {
        // The counter is full: the loop has been woken already.
        return;
    }
}

int OnWake(sd_event_source * /*source*/, int fd, uint32_t /*events*/,
           void * /*userData*/)
{
    uint64_t count = 0;
    return read(fd, &count, sizeof(count)) < 0 && errno != EAGAIN ? -errno : 0;
}

void LogFailure(const char *step, int result, SignalEnd end = SignalEnd::Failed)
{
    CountOne(Figures().signals, end);
    QDB_LOG(kLogWarning, "%s: Failed to emit signal %s: %s\n", step,
            strerrordesc_np(-result));
}

struct Unref
{
    sd_bus_message *message = nullptr;

    ~Unref()
    {
        sd_bus_message_unref(message);
    }
};

void Send(sd_bus *bus, const char *jsonText, const char *member)
{
    if (std::strlen(jsonText) > kMaxSignalText)
    {
        LogFailure("sd_bus_send", -EMSGSIZE, SignalEnd::TooLong);
        return;
    }
    Unref signal;
    int result = sd_bus_message_new_signal(bus, &signal.message, kSignalPath,
                                           kSignalInterface, member);
    if (result < 0)
    {
        LogFailure("sd_bus_message_new_signal", result);
        return;
    }
    result = sd_bus_message_append(signal.message, "s", jsonText);
    if (result < 0)
    {
        LogFailure("sd_bus_message_append", result);
        return;
    }
    result = sd_bus_send(bus, signal.message, nullptr);
    if (result < 0)
    {
        LogFailure("sd_bus_send", result);
        return;
    }
    CountOne(Figures().signals, SignalEnd::Sent);
    CountSince(Figures().toSignal, tEventCame);
}

} // namespace

BusLock::BusLock() : own_(gBusMutex), hold_(gNamedPipeJsonMutex)
{
}

void CreateBusMutex()
{
    const MutexLock lock(gBusMutex);
    if (gNamedPipeJsonMutex == nullptr)
    {
        gNamedPipeJsonMutex = ZOMutexCreate(0);
    }
    if (gNamedPipeJsonMutex == nullptr)
    {
        QDB_LOG(kLogWarning, "%s: Failed to allocate gNamedPipeJsonMutex \n");
    }
}

void DestroyBusMutex()
{
    const MutexLock lock(gBusMutex);
    if (gNamedPipeJsonMutex != nullptr)
    {
        ZOMutexDestroy(gNamedPipeJsonMutex);
        gNamedPipeJsonMutex = nullptr;
    }
}

const char *SignalMember(int kind)
{
    static constexpr const char *kMembers[] = {
        "Vexo_qdb_Resource_Added",
        "Vexo_qdb_Resource_Changed",
        "Vexo_qdb_Resource_Removed",
        "Vexo_shmdb_Resource_Added",
    };
    return kind >= 1 && kind <= 4 ? kMembers[kind - 1] : nullptr;
}

void send_dbus_signal(const char *jsonText, int kind)
{
    LogEntry("send_dbus_signal");
    sd_bus *bus = gBusConnection;
    const char *member = SignalMember(kind);
    if (jsonText == nullptr)
    {
        QDB_LOG(kLogWarning, "%s: Input buffer is NULL. Exit.\n");
        return;
    }
    if (bus == nullptr)
    {
        QDB_LOG(kLogWarning, "%s: No active connection with Dbus. Exit.\n");
        CountOne(Figures().signals, SignalEnd::NoBus);
        return;
    }
    if (member == nullptr)
    {
        QDB_LOG(kLogWarning, "%s: Not a valid signal\n");
        return;
    }
    Send(bus, jsonText, member);
    if (const uint64_t queued = QueuedMessages(bus))
    {
        WakeLoop();
        if (queued > kQueueLimit)
        {
            DrainTo(bus, kQueueLimit, kStallLimitMs);
        }
    }
    LogExit("send_dbus_signal");
}

int AddWakeSource(sd_event *loop)
{
    gWakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (gWakeFd < 0)
    {
        return -errno;
    }
    return sd_event_add_io(loop, &gWakeSource, gWakeFd, POLLIN, OnWake,
                           nullptr);
}

void RemoveWakeSource()
{
    gWakeSource = sd_event_source_unref(gWakeSource);
    if (gWakeFd >= 0)
    {
        close(gWakeFd);
        gWakeFd = -1;
    }
}

void FlushBus(int timeoutMs)
{
    const BusLock lock;
    if (sd_bus *bus = gBusConnection)
    {
        DrainTo(bus, 0, timeoutMs);
    }
}

void FlushBusIfFree(int timeoutMs)
{
    if (pthread_mutex_trylock(&gBusMutex) != 0)
    {
        return;
    }
    if (sd_bus *bus = gBusConnection)
    {
        DrainTo(bus, 0, timeoutMs);
    }
    pthread_mutex_unlock(&gBusMutex);
}

} // namespace qdb
