// The parents that the Data Manager gives an object: the one whose key goes
// into its row, and all of them as rows of ParentChildMapping. All ask the Data
// Manager, and so must be called without the turn at the database.
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

// Records the links of an object to those of its parents that the Data Manager
// still has. pDOH isn't NULL; its OID is `oid`.
void RefreshParentChildMapping(const DataObjHeader *pDOH, uint32_t oid);

} // namespace qdb
