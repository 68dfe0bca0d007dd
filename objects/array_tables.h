// Array properties: their elements live in side tables, one row each, and
// appear as a JSON array under the column that the main table keeps NULL.
//
// Called inside a handler, under the row's mutex of its operation. Nothing
// removes elements when an array shrinks: the tail of a longer predecessor
// stays.
#pragma once

#include "core/json.h"
#include "objects/row_reader.h"

namespace qdb
{

// Writes all elements of all array properties of the object. A failure ends its
// property and is logged; the object's row stands all the same. Nothing to do
// for a row without arrays.
void InsertArrays(const ObjTypeRow &row, const DataObjHeader *pDOH);

// What follows the reading of an object's row: logs the reader's status and,
// when it is 0, reads all array properties and sets them in the row; a property
// without elements keeps the row's null. Returns the reader's status, or that
// of the first property that failed, with the later ones unread. *pReading
// may be empty when readStatus isn't 0.
int AddArrays(const ObjTypeRow &row, uint32_t oid, int readStatus,
              RowReading *pReading);

// Finalises the statements of all side tables. No thread may use them any more.
void FinalizeArrayStatements();

// The elements of `after` that differ from those at the same place in `before`,
// as far as `before` goes.
JsonPtr ChangedElements(const json_t *before, const json_t *after);

} // namespace qdb
