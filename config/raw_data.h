// Files whose content becomes the value of a string attribute: certificates
// and raw data of applications.
//
// A key picks the rows of TblStrAttribute whose Key it is, in whatever case;
// at start-up the key is the file's name. Failures end in the log; an import
// is never repeated.
//
// Locks, outermost first: the RefreshObjMutex of string attributes for the
// whole database part, so that imports and refreshes of one row don't mix;
// SqliteStepMutex; and last the bus mutex for the signal. Files are read
// without a lock.
#pragma once

#include "platform/zoil.h"

#include <cstdint>

namespace qdb
{

// Imports the raw data directory, every entry whose name doesn't begin with a
// dot. Called once by `main`, after population; a stop ends it between two
// files.
void OnLoadRawObjectsUpdate();

// Carries out a record of type ZO_EVENT_RAW_DATA_UPDATE, which holds evtSize
// bytes and stays the caller's. The path in it is the sender's choice and
// is used as it is, without the runtime root. Returns 0, also for another type;
// 2 for a NULL or malformed record; -1 when the refresh failed.
int ObjectNotificationRawData(const DataEventHeader *record,
                              uint16_t eventType);

// Imports one file. onLoad is 1 at start-up, when a file without content is
// passed over, and 0 for an event, when it clears the value. A file that can't
// be read clears it in both cases. Always 0. Takes RefreshObjMutex.
int RefreshObj_4052_RawData(const char *filePath, const char *key, int onLoad);

} // namespace qdb
