#include "core/paths.h"

namespace qdb
{

const char *gRuntimeRoot = QDB_RUNTIME_ROOT;

std::string DatabasePath()
{
    return std::string(gRuntimeRoot) + "/var/run/quillondatabase/" +
           kDatabaseName;
}

std::string TelemetryPipePath()
{
    return std::string(gRuntimeRoot) +
           "/var/run/telemetryservice/qdbtdbipcpipe";
}

std::string RawDataDirectory()
{
    return std::string(gRuntimeRoot) + "/mnt/persistent_data/data0/gen_certs/";
}

} // namespace qdb
