// Lists inside an object that become one text column.
//
// Counts and sizes come from the object and are bounded by what it can hold.
// The caller passes the list's offset, which is neither 0 nor above
// kMaxTextOffset; for the address lists it counts from kBodyBase.
#pragma once

#include "objects/object_view.h"
#include "objects/schema/column.h"

#include <optional>
#include <string>

namespace qdb
{

// The joined text of a list; nothing when it has no elements or does not lie
// inside the object. `join` isn't Join::None.
std::optional<std::string> JoinList(const ObjectView &object, Join join,
                                    uint32_t listOffset);

} // namespace qdb
