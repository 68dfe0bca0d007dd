// The reload of the two device objects of types 0xEB and 0xEC, which are
// compared whole.
//
// Each type has one copy, whatever the number of its objects: two objects of a
// type differ from each other's copy, and replace each other on every pass.
#pragma once

#include "platform/zoil.h"

#include <pthread.h>

#include <cstddef>
#include <cstdint>

namespace qdb
{

// Guards the two copies and the statement of DeleteNCObjsBasedOnOID; held by
// all callers of the two functions below.
extern pthread_mutex_t gObjTypeBasedNCMutex;

// Reads the objects again and replaces the rows of those that differ. Of an
// object that can't be had any more the copy goes, and the row with it.
// Returns the last status of the walk: 0; 256 when a list or an object was
// missing; -1 or 11 when a handler failed; 272, which ends the walk.
int ObjTypeBasedNCObjects();

// Replaces one object, whose OID is `oid`, in row 0 (0xEB) or 1 (0xEC): deletes
// it if there was a copy, and creates it. The parent may be NULL. Returns 0;
// 272 without memory; otherwise the last failure, -1 or 11.
int ObjTypeBasedNCObjRefreshHandling(const DataObjHeader *pDOH,
                                     const DataObjHeader *pParentDOH,
                                     uint32_t oid, size_t rowIndex);

} // namespace qdb
