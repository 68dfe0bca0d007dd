// The one integer space of statuses.
//
// SQLite's result codes and the object library's share it: 0, SQLITE_ROW and
// SQLITE_DONE are success, SQLITE_BUSY and SQLITE_LOCKED are worth another
// attempt, SQLITE_CORRUPT ends the service. The values below travel through
// logs and closed libraries and must not be renumbered.
#pragma once

#include <sqlite3.h>

namespace qdb
{

// A failure that has already been logged.
inline constexpr int kFailed = -1;

inline constexpr int kInvalidArgument = 2;
inline constexpr int ZO_STATUS_NO_SUCH_OBJECT = 256;
inline constexpr int kInvalidObjectCount = 257;
inline constexpr int kNoMemory = 272;

// An object that cannot be read as it stands; worth fetching again.
inline constexpr int ZO_STATUS_INVALID_VALUE = 8216;

constexpr bool IsSuccess(int status)
{
    return status == SQLITE_OK || status == SQLITE_ROW || status == SQLITE_DONE;
}

constexpr bool IsBusy(int status)
{
    return status == SQLITE_BUSY || status == SQLITE_LOCKED;
}

// What a failed handler counts as for its caller: corruption stays visible,
// anything else is a failure that the handler has logged.
constexpr int FailureOf(int status)
{
    return status == SQLITE_CORRUPT ? SQLITE_CORRUPT : kFailed;
}

} // namespace qdb
