// The handlers of the signals that the matches deliver.
//
// Each reads from a message what the next step needs and no more: a signal only
// says that an object is to be looked at, and its data is fetched afterwards. A
// message that cannot be read is one "EX" line and -1; nothing is thrown, since
// the callers are C. They run on the signal thread, one at a time.
#pragma once

#include "busintake/bus_api.h"

namespace qdb
{

// Attributes of an object changed. The rest of the body isn't looked at.
// Returns as qdb_signal_notification_callback.
int properties_changed(sdbusplus::message_t &message);

// An object is gone. Returns 0, whether or not the record could be made.
int object_removed(sdbusplus::message_t &message);

// Objects are there: a record for each interface that has an "oid", in the
// order of their names. Those made before the body turns out to be unreadable
// stand. Returns 0.
int interfaces_added(sdbusplus::message_t &message);

// The configuration manager has announced many changes at once: loads all
// objects of the message's interface here and now, which takes as long as it
// takes. Returns the status of the load; 256 when the groups can't be had.
int bulk_commit(sdbusplus::message_t &message);

// The configuration manager is back. Returns as
// qdb_signal_cfgmgr_restart_callback.
int cfgmgr_name_owner_changed(sdbusplus::message_t &message);

// A file's content is new. Returns as HandleSignalRawDataUpdated.
int raw_data_updated(sdbusplus::message_t &message);

} // namespace qdb
