// Filling the tables from what the Data Manager holds.
//
// A failed object never stops a walk, and the last failure decides its result:
// 0; 256 when an object or list was missing; -1 when a handler failed; 11 when
// it met a corrupt database. A stop ends a walk between two objects.
#pragma once

#include <cstdint>

namespace qdb
{

// Walks all rows of the catalogue, configuration included, once at start. 256
// at once, with nothing filled, when the configuration groups can't be had.
int OnLoadObjectsCreation();

// The same walk for the objects of one type of the Data Manager.
int InsertObjBasedOnObjType(uint32_t objType);

} // namespace qdb
