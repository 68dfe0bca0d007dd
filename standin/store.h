// Changes of objects, below the functions of standin.h.
#pragma once

#include "standin/standin.h"
#include "standin/state.h"

#include <cstdint>
#include <span>
#include <vector>

namespace standin
{

// Replaces the given values of an object or an attribute, whose type and OID
// stand already, or removes them where they are null; builds its bytes anew.
// Changes nothing when one doesn't fit. The one way of values into bytes.
Error ChangeValues(Object *pObject, json_t *given);

// The OIDs of live objects of these types, of all types when empty, in
// ascending order.
std::vector<uint32_t> ObjectIdsOf(std::span<const uint16_t> types);

// The object's status byte; 0 when its bytes end before.
uint8_t ObjectStatus(const Object &object);

// Queues create events for the objects, in records of at most 4,000.
void AnnounceObjects(std::span<const uint32_t> oids);

} // namespace standin
