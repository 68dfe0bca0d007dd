#include "core/log.h"
#include "core/paths.h"
#include "core/state.h"
#include "publish/telemetry.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstring>

namespace qdb
{
namespace
{

constexpr size_t kLineSize = 4096;

bool StartsWith(const char *text, const char *prefix)
{
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

} // namespace

void TelemetryUpdateHook(void * /*userData*/, int operation,
                         const char *databaseName, const char *tableName,
                         long long rowid)
{
    if (rowid < 1 || tableName == nullptr || databaseName == nullptr)
    {
        QDB_LOG(kLogInvalid, "%s: One or some of the input parameters are "
                             "incorrect. Exiting\n");
        return;
    }
    if (gDMDetachClearing == 1 && operation == SQLITE_DELETE)
    {
        return;
    }
    if (StartsWith(tableName, "TblEtag"))
    {
        return;
    }
    FormatTelemetryLine(operation, tableName, rowid);
}

void FormatTelemetryLine(int operation, const char *tableName, long long rowid)
{
    if (StartsWith(tableName, "ActiveOIDMapping") ||
        StartsWith(tableName, "ParentChildMapping") ||
        std::strstr(tableName, "ARR_Tbl") != nullptr)
    {
        return;
    }
    QDB_LOG(kLogTrace, "%s:  Operation type %d, Table %s, rowid %lld\n",
            operation, tableName, rowid);
    char line[kLineSize];
    std::snprintf(line, sizeof(line), "||%s|%s|%lld|%d||", kDatabaseName,
                  tableName, rowid, operation);
    PublishTelemetryLine(line);
}

void PublishTableGone(const char *tableName)
{
    char line[kLineSize] = {};
    std::snprintf(line, sizeof(line), "||%s|%s|%d|%d||", kDatabaseName,
                  tableName, 0, SQLITE_DELETE);
    PublishTelemetryLine(line);
}

} // namespace qdb
