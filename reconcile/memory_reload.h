// The reload of memory devices and the host power object.
#pragma once

#include <pthread.h>

namespace qdb
{

// Guards the endurances of NVDIMMs that were seen; held by all callers of
// ReLoadNCObjects.
extern pthread_mutex_t gReLoadNCMutex;

// Reads the objects again and, by what memory_checks.h finds, refreshes their
// rows, creates them, or deletes and creates them. The last failure is the
// result: 0; 256 when a list or an object was missing; -1 or 11 when a handler
// failed.
int ReLoadNCObjects();

} // namespace qdb
