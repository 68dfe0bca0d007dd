// Objects that are watched by their keys: what was last seen of each, and what
// its row needs now.
#pragma once

#include "objects/cached_object.h"

#include <cstdint>

namespace qdb
{

// Static storage.
struct KeyedRow
{
    const char *key;
    const char *path; // of an attribute; "" for an object of the Data Manager
    uint32_t objType; // with one row in the catalogue
    CachedObject cached = {};
};

enum class RowWrite
{
    None,
    Insert,
    Refresh,
};

// What the row needs, now that its object reads so: nothing if it equals the
// copy. A row that has gone in spite of a copy is inserted; only attributes are
// asked for, any other object counts as present. Logs the reason with the
// caller's name. Reads the database through a presence check.
RowWrite ChooseWrite(const KeyedRow &row, const DataObjHeader *pDOH,
                     const char *function);

} // namespace qdb
