// The parents that the Data Manager gives an object, as rows of
// ParentChildMapping.
#pragma once

#include "platform/zoil.h"

#include <cstdint>

namespace qdb
{

// Records the links of an object to those of its parents that the Data Manager
// still has. pDOH isn't NULL; its OID is `oid`. Asks the Data Manager, and so
// must be called without the turn at the database.
void RefreshParentChildMapping(const DataObjHeader *pDOH, uint32_t oid);

} // namespace qdb
