#include "core/paths.h"

#include <cstdio>

namespace qdb
{

const char *gRuntimeRoot = QDB_RUNTIME_ROOT;

namespace
{

FilePath UnderRoot(const char *directory, const char *name)
{
    FilePath path;
    std::snprintf(path.text, sizeof(path.text), "%s%s%s", gRuntimeRoot,
                  directory, name);
    return path;
}

} // namespace

FilePath DatabasePath()
{
    return UnderRoot("/var/run/quillondatabase/", kDatabaseName);
}

FilePath StatisticsPath()
{
    return UnderRoot("/var/run/quillondatabase/", "statistics");
}

FilePath TelemetryPipePath()
{
    return UnderRoot("/var/run/telemetryservice/", "qdbtdbipcpipe");
}

FilePath RawDataDirectory()
{
    return UnderRoot("/mnt/persistent_data/data0/gen_certs/", "");
}

} // namespace qdb
