// The JSON texts that announce a change.
//
// {"TableName", "RowDetails"} for a created or deleted row, with
// "PropertiesChanged" and for some rows "PreviousPropertyValues" for a changed
// one. Key order is part of the format.
#pragma once

#include "core/json.h"
#include "objects/row_reader.h"

namespace qdb
{

// Announces a row that exists whole; NULL when it can't be rendered, since
// parts of a row are never announced.
JsonText RenderWholeRow(const ObjTypeRow &row, RowReading reading);

// Announces what differs between two readings of a row. *pCount is set to the
// number of changed columns, the tag not counted; 0 also when they can't be
// told for want of memory. NULL when that is 0, or when the change can't be
// rendered.
JsonText RenderDifference(const ObjTypeRow &row, RowReading before,
                          RowReading after, int *pCount);

// What changed in a row, for those who announce it in their own way.
struct ChangeSet
{
    JsonPtr changed;  // the columns whose value changed, with the new values;
                      // NULL without memory
    JsonPtr previous; // the same columns with the old ones; may be NULL
    int count = 0;    // of changed columns, the tag not counted
};

// Compares two readings of a row by JSON value, in the order of the old one.
ChangeSet CompareRows(const ObjTypeRow &row, json_t *before,
                      const json_t *after);

// Announces a changed row; takes row and change set into the change object.
JsonText RenderChange(const ObjTypeRow &row, JsonPtr rowJson,
                      ChangeSet changes);

} // namespace qdb
