// The parent of an object.
#pragma once

#include "core/platform_ptr.h"

namespace qdb
{

// Stores a copy of the object's first parent that the Data Manager can give, to
// be released with ZOILFreeGeneric. Returns 0, also when the object has no
// parents and *ppParentDOH stays as it was; 256 when a parent could not be
// fetched, even if a later one was, which is then stored; -1 for a NULL object
// or list.
int GetParentDOH(const DataObjHeader *pDOH, DataObjHeader **ppParentDOH);

// The same for callers that own what they find, with the line that tells
// whether a parent was found; `prefix` begins it. *pStatus, which may be NULL,
// gets the result.
ObjectPtr FetchParent(const DataObjHeader *pDOH, int *pStatus,
                      const char *prefix = "");

} // namespace qdb
