// The writing end of the telemetry pipe; for publish/ and its tests.
#pragma once

#include <atomic>
#include <cstddef>

namespace qdb
{

// -1: closed, and the next record opens it. Written under gNamedPipeMutex.
extern std::atomic<int> gTelemetryPipeFd;

// Writes the bytes, opening the pipe first if it is closed. A full pipe gets
// four attempts at once. Returns 0 or the errno of the failure. The caller
// holds gNamedPipeMutex.
int WriteTelemetryBytes(const char *buffer, size_t length);

} // namespace qdb
