// The value of one column, written into an object that is being built.
#pragma once

#include "objects/schema/table.h"

#include <jansson.h>

#include <cstdint>
#include <vector>

namespace standin
{

// The object that is being built, with its fields in place.
struct Draft
{
    const qdb::Table &table;
    json_t *values; // NULL: none
    std::vector<uint8_t> bytes;
};

// Writes a field, or appends what stands behind the fields. Counts and cell
// sizes follow from the lists, unless the draft's values name them. Refuses, as
// support.h tells, a value of the wrong kind or one that doesn't fit; the
// caller puts the column's name before the words.
void WriteColumn(Draft *pDraft, const qdb::Column &column, const json_t *value);

} // namespace standin
