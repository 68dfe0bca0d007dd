// Lists of texts inside an object that are stored as one text.
#pragma once

#include "objects/schema/column.h"
#include "tools/audit/content.h"

#include <optional>
#include <string>

namespace qdb::audit
{

// The text for the list at `offset`, which isn't 0 and, for the address lists,
// counts from the body. Nothing when the list has no elements in the object.
std::optional<std::string> ListText(const ObjectBytes &bytes, Join join,
                                    uint64_t offset);

} // namespace qdb::audit
