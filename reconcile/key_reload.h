// The reload of the system information object, which is watched by its key.
#pragma once

#include "config/keyed_row.h"

#include <pthread.h>

namespace qdb
{

// Guards the copy of the object, and so is held by all callers of
// ReLoadKeyBasedNCObjects and of ReLoadCfgKeyBasedNCObjects.
extern pthread_mutex_t gReLoadKeyBasedNCMutex;

// The object, as the Data Manager has it now; NULL: not at all.
ObjectPtr FetchKeyedObject();

// Reads the object again and refreshes its row if it differs from what was last
// seen. Returns 0; 256 when there is no object; otherwise the write's result.
int ReLoadKeyBasedNCObjects();

// Writes one row; `write` isn't None. The object becomes the row's copy even if
// the write fails. Returns 0; 256 when the object vanished while it couldn't be
// read; 272 without memory, and then without a copy; -1 or 11.
int ReLoadKeyBasedNCObject(ObjectPtr object, KeyedRow &row, RowWrite write);

} // namespace qdb
