// One change of a row, as a change signal of the service tells it.
#pragma once

#include "core/json.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qdb::watch
{

enum class Kind
{
    Added,
    Changed,
    Removed,
};

struct Change
{
    Kind kind = Kind::Added;
    std::string table;
    int64_t oid = 0;
    JsonPtr row;      // the row as it now stands, or last stood; an object
    JsonPtr changed;  // new values by column; an object, empty unless Changed
    JsonPtr previous; // old values by column, as far as known; an object
};

const char *KindName(Kind kind);

// The kind of change that a signal with this member name announces; none for
// names that aren't a change signal's.
std::optional<Kind> KindOfMember(std::string_view member);

// Reads the signal's argument. Text that isn't JSON of the shape that the
// service sends gives none and says why in *pError.
std::optional<Change> ParseChange(Kind kind, const char *text,
                                  std::string *pError);

} // namespace qdb::watch
