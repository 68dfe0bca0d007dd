// What qdb watch has to tell of a row.
#pragma once

#include "core/json.h"

#include <cstdint>
#include <string>

namespace qdb::tool
{

enum class Kind
{
    Present, // it was there when the watching began
    Added,
    Changed,
    Removed,
};

struct Change
{
    Kind kind = Kind::Added;
    std::string table;
    int64_t oid = 0;
    std::string key;  // or name; "" for a row without one
    JsonPtr row;      // the row as it now stands, or last stood; an object
    JsonPtr changed;  // new values by column; an object, empty unless Changed
    JsonPtr previous; // the old values of the same columns; an object
};

// The tables were read again.
struct Resync
{
    const char *reason; // a word
    const char *text;   // the same for people
    size_t added;
    size_t changed;
    size_t removed;
};

} // namespace qdb::tool
