// What the service manager is told of the service, by the protocol of
// systemd's notifications. Without NOTIFY_SOCKET in the environment nothing
// happens. Never with the turn at the database, nor with a lock.
#pragma once

namespace qdb
{

// Whether there is somebody to tell, for what is only found out to be told.
bool IsSupervised();

// Tells what the service does just now; a printf format and what it takes. A
// failure, also for want of memory, is nobody's loss and passes silently.
[[gnu::format(printf, 1, 2)]] void TellStatus(const char *format, ...);

// The mirror is filled, and readiness is published or, for now, refused.
void TellReady();

// The service has begun to end.
void TellStopping();

} // namespace qdb
