// Array properties: their elements live in side tables, one row each, and
// appear as a JSON array under the column that the main table keeps NULL.
//
// Called inside a handler, under the row's mutex of its operation; statements
// are made for each call. Nothing removes elements when an array shrinks: the
// tail of a longer predecessor stays.
#pragma once

#include "core/json.h"
#include "objects/catalogue.h"

namespace qdb
{

// Writes all elements of all array properties of the object. A failure ends its
// property and is logged; the object's row stands all the same. Nothing to do
// for a row without arrays.
void InsertArrays(const ObjTypeRow &row, const DataObjHeader *pDOH);

// Reads all array properties of an object and sets them in its row; a property
// without elements keeps the row's null. Returns 0, or the status of the first
// property that failed, with the later ones unread.
int ReadArrays(const ObjTypeRow &row, uint32_t oid, json_t *rowJson);

// The elements of `after` that differ from those at the same place in `before`,
// as far as `before` goes.
JsonPtr ChangedElements(const json_t *before, const json_t *after);

} // namespace qdb
