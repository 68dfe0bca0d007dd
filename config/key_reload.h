// The reload of five attributes whose changes nobody announces.
//
// The copies that it keeps belong to the NC thread, which alone may call these
// functions; it holds gReLoadKeyBasedNCMutex meanwhile.
#pragma once

#include "config/config_objects.h"
#include "config/keyed_row.h"

#include <cstddef>

namespace qdb
{

// Reads the five again and writes the rows of those that differ from what was
// last seen. Returns the status of the last one: 0; 256 when it couldn't be
// fetched; 8216, -1 or 11 when it couldn't be written. 272 at once, and the
// later ones are left alone, when there is no memory.
int ReLoadCfgKeyBasedNCObjects();

// Writes one of the five; `write` isn't None. The object becomes the copy even
// if the write fails. *ppObject may be replaced by a newer copy, which isn't
// written, or be NULL afterwards. Returns 0, 272, -1 or 11; 8216 when there is
// no object.
int CfgKeyBasedNCObjRefreshHandling(ConfigObjectPtr *ppObject, size_t rowIndex,
                                    RowWrite write);

} // namespace qdb
