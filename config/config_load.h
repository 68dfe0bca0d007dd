// The bulk load of configuration attributes into their four tables.
#pragma once

#include "config/config_objects.h"

namespace qdb
{

// Creates the rows of all objects of one attribute interface; each gets its
// group as parent, or none. groups may be NULL, or hold a
// NULL list. Objects that can't
// be created don't stop the load. Returns 0; 256 when there is no list;
// otherwise the last failure, 11 or -1. Several loads may run at once. A stop
// ends a load between two objects.
int OnLoadConfigObjectsCreation(const char *interfaceName,
                                const ConfigObjectList *groups);

// Thread body of a reload after a detach: all four interfaces. The caller has
// entered the gate on its behalf; it leaves the gate as its last act.
void *ReloadConfigObjectsThread(void *argument);

} // namespace qdb
