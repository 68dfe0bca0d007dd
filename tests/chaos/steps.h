// What is done to one object or attribute, and what of it the service is told.
// Each step tells the world of everything that it does and says, in its order.
#pragma once

#include "tests/chaos/chaos.h"

#include <vector>

namespace qdb::chaos
{

// A step is a letter:
//   A D C  it appears, disappears, a column changes; the service is told
//   a d c  the same without a word
//   w      a column changes that passes watch, without a word
//   s      its status changes; the service is told with a copy of the object
//   r      its file of raw data comes, changes, is empty or is gone
//   3 7 8  the service is told of a change, a creation or an end that wasn't
void Step(Chaos &chaos, Slot &slot, char step);

// A list of the type 3, 7 or 8, without a change of any object.
void SendList(Chaos &chaos, uint16_t type, const std::vector<uint32_t> &oids);

} // namespace qdb::chaos
