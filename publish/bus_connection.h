// The connection that change signals leave on; shared by the senders and the
// bus service thread.
//
// sd-bus objects are not thread-safe. Invariants:
// 1. Only a holder of a BusLock touches the connection or the event loop.
// 2. The bus service thread waits for events without the lock, on the loop's
//    descriptor alone.
// 3. Nothing but signals and the object manager's replies is ever sent, so
//    that receivers can tell a loss by a gap in the serials.
//
// The connection is a thread's default one, and that thread may be cancelled
// while senders go on. Its memory then stays until the process ends.
#pragma once

#include "core/lock.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <atomic>

namespace qdb
{

// NULL whenever there is no connection. Written under a BusLock.
extern std::atomic<sd_bus *> gBusConnection;

// The loop that the connection is attached to. Written under a BusLock.
extern std::atomic<sd_event *> gBusEventLoop;

// The bus mutex: a leaf, and below it the platform's mutex once there is one.
class BusLock
{
  public:
    BusLock();
    BusLock(const BusLock &) = delete;
    BusLock &operator=(const BusLock &) = delete;

  private:
    MutexLock own_;
    PlatformHold hold_;
};

// Make and destroy the platform's mutex; the caller holds no BusLock.
void CreateBusMutex();
void DestroyBusMutex();

// The interface of the signals, its object path and its members. Kind 1 to 4;
// NULL for any other kind.
inline constexpr char kSignalPath[] = "/com/vexo/tarnu/qdb/changeeventnotify";
inline constexpr char kSignalInterface[] =
    "com.vexo.tarnu.qdb.changeeventnotify";
const char *SignalMember(int kind);

// The longest text that goes out, in bytes. A bus daemon disconnects who sends
// more than 32 MiB in a message, for good; the rest is the message's header.
inline constexpr size_t kMaxSignalText = (32 << 20) - (64 << 10);

// Makes the signal and sends it; a text that is too long is dropped with the
// line of a failed sending. Neither looks at readiness nor locks: the
// caller holds a BusLock. Kinds 1 to 4. Waits for a stalled bus at most
// kStallLimitMs.
void send_dbus_signal(const char *jsonText, int kind);

// The longest that one sender waits while the bus takes nothing.
inline constexpr int kStallLimitMs = 100;

// Adds the source to the loop by which senders wake it when they leave bytes
// unsent. The caller holds a BusLock. Returns 0 or a negative errno.
int AddWakeSource(sd_event *loop);
void RemoveWakeSource();

// Sends what is still queued, waiting at most timeoutMs. For closing, when no
// other thread uses the connection any more.
void FlushBus(int timeoutMs);

// The same for an end that waits for nobody: sends nothing when another thread
// has the connection, and takes no mutex of the platform.
void FlushBusIfFree(int timeoutMs);

} // namespace qdb
