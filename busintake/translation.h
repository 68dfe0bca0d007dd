// Signals of the bus as event records on the queue of the Data Manager's
// events, so that the workers treat both alike.
//
// A record is one block, header and texts, so that one free ends it and the
// queue needs no knowledge of what is inside; its layout is that of
// queues/event_record.h. The texts given are copied. Each function
// returns 0, or a negative errno; what could not be queued is lost. -ENOMEM is
// also for what would be too much on the queue (HasRoomForBusRecord). Called on
// the signal thread.
#pragma once

#include <cstdint>

namespace qdb
{

// An object of an interface, at a path, was added, removed or changed, as the
// signal's member says; `oid` is 0 where the signal names none. -EINVAL for
// another member, -ENOMEM. The interface isn't judged here.
int qdb_signal_notification_callback(const char *interfaceName,
                                     const char *member, const char *path,
                                     uint32_t oid);

// The configuration manager, if it is that name, is back on the bus. -EINVAL
// for another name, -ENOMEM.
int qdb_signal_cfgmgr_restart_callback(const char *name);

// The file with the value of the attribute `key` is new. -ENOMEM.
int HandleSignalRawDataUpdated(const char *key, const char *filePath);

} // namespace qdb
