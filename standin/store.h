// Changes of the Data Manager's objects, below the functions of standin.h.
#pragma once

#include "objects/schema/table.h"
#include "standin/state.h"
#include "standin/support.h"

#include <cstdint>
#include <span>
#include <vector>

namespace standin
{

// A copy of `old` in which the members of `given` are replaced, or removed
// where they are null. Members that were given stand last. Both may be NULL.
Json MergedValues(json_t *old, json_t *given);

// Writes the values into an object's bytes, when all of them are numbers that
// nothing else in the object depends on. False, with nothing written, when the
// object has to be built anew to know what they do, or whether they fit.
bool PatchObject(const qdb::Table &table, json_t *values,
                 std::vector<uint8_t> *pBytes);

// The OIDs of live objects of these types, of all types when empty, in
// ascending order.
std::vector<uint32_t> ObjectIdsOf(const std::vector<uint16_t> &types);

// The object's status byte; 0 when its bytes end before.
uint8_t ObjectStatus(const Object &object);

// Queues create events for the objects, in records of at most 4,000.
void AnnounceObjects(std::span<const uint32_t> oids);

} // namespace standin
