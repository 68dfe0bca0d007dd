// Plausible contents for objects, from nothing but a type and a number.
#pragma once

#include "standin/support.h"

#include <cstdint>

namespace standin
{

// Values for the columns, joined lists and arrays of a new object; columns that
// describe the object's structure are left to the builder. The same arguments
// always give the same values. `isFirst` chooses the first of the tables of a
// type that has two.
Json GenerateValues(uint16_t type, uint32_t oid, bool isFirst);

} // namespace standin
