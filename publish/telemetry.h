// The telemetry pipe: a short record for every row change, for a reader that
// goes to the database for the rest.
//
// Records follow each other without separators, as "||db|table|rowid|op||".
// The pipe's file is the reader's. Loss is preferred to waiting: a record that
// cannot be written at once is dropped and not counted.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

struct sqlite3;

namespace qdb
{

// For sqlite3_update_hook: reports a changed row of an object table. Runs
// inside a step, with SqliteStepMutex held; calls no SQLite function. Takes
// gNamedPipeMutex.
void TelemetryUpdateHook(void *userData, int operation,
                         const char *databaseName, const char *tableName,
                         long long rowid);

// Writes the record of one changed row; bookkeeping and side tables have none.
// tableName isn't NULL. Takes gNamedPipeMutex.
void FormatTelemetryLine(int operation, const char *tableName, long long rowid);

// Writes the record that tells that all rows of a table are gone. Takes
// gNamedPipeMutex.
void PublishTableGone(const char *tableName);

// Writes one NUL-terminated record, opening the pipe if need be. Always 0.
// Takes gNamedPipeMutex.
int PublishTelemetryLine(const char *lineText);

// Closes the pipe if it is open; no thread may write any more.
void CloseTelemetryPipe();

// The writing end of the pipe. -1: closed, and the next record opens it.
// Written under gNamedPipeMutex.
extern std::atomic<int> gTelemetryPipeFd;

// Writes the bytes, opening the pipe first if it is closed. A full pipe gets
// four attempts at once. Returns 0 or the errno of the failure. The caller
// holds gNamedPipeMutex.
int WriteTelemetryBytes(const char *buffer, size_t length);

// All object tables, in the order in which a detach reports them gone. Readers
// know the order.
extern const std::span<const char *const> TelemetryDetachTableList;

} // namespace qdb
