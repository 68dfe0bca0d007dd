// The files that the service meets.
#pragma once

#include <string>

namespace qdb
{

// Put before every absolute path; empty in the field. Set before any thread
// starts, and not changed afterwards.
extern const char *gRuntimeRoot;

// The database file's name, which is also its name on the telemetry pipe.
inline constexpr const char kDatabaseName[] = "DMLiveObjectDatabase.db";

std::string DatabasePath();
std::string TelemetryPipePath();

// Ends in a slash.
std::string RawDataDirectory();

} // namespace qdb
