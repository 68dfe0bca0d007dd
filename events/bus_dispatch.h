// From a record that came by the bus to the handlers: configuration attributes,
// named by interface and path.
#pragma once

#include "core/object_order.h"
#include "platform/zoil.h"

#include <cstdint>

namespace qdb
{

// Carries out a record of type DATA_EVENT_DBUS_TO_QDB, which was taken at that
// tick of core/object_order.h, by default now. It holds evtSize bytes and stays
// the caller's. A destroy that has been overtaken by a create puts a create
// behind the queue. Returns 0; 2 for a NULL or malformed record;
// 256 when the object or its row is missing; 272 without memory; -1 or 11 when
// a handler failed or the interface isn't known; 1 when the object could not be
// fetched; for a destroy the Delete's last status.
int ObjectNotificationDbus(const DataEventHeader *record, uint16_t eventType,
                           uint64_t taken = Tick());

} // namespace qdb
