// The files that the service meets.
#pragma once

#include <climits>

namespace qdb
{

// Put before every absolute path; empty in the field. Set before any thread
// starts, and not changed afterwards.
extern const char *gRuntimeRoot;

// The database file's name, which is also its name on the telemetry pipe.
inline constexpr const char kDatabaseName[] = "DMLiveObjectDatabase.db";

// A path that needs no memory of the heap: one is made inside a step of
// SQLite's. Longer ones are cut, and then name nothing.
struct FilePath
{
    char text[PATH_MAX];
};

FilePath DatabasePath();
FilePath StatisticsPath();
FilePath TelemetryPipePath();

// Ends in a slash.
FilePath RawDataDirectory();

} // namespace qdb
