#include "publish/telemetry.h"

#include "core/lock.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/state.h"
#include "core/statistics.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace qdb
{

std::atomic<int> gTelemetryPipeFd = -1;

namespace
{

constexpr size_t kLineSize = 4096;

bool StartsWith(const char *text, const char *prefix)
{
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

constexpr int kRetryBudget = 3;

pthread_mutex_t gOwnMutex = PTHREAD_MUTEX_INITIALIZER;

int OpenPipe()
{
    gTelemetryPipeFd =
        open(TelemetryPipePath().text, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (gTelemetryPipeFd < 0)
    {
        const int error = errno;
        QDB_LOG(kLogTrace, "%s: QDB-TDB pipe open failed with error: %d, %s \n",
                error, strerrordesc_np(error));
        return error;
    }
    QDB_LOG(kLogTrace, "%s: Telemetry Service write pipe opened "
                       "successfully\n");
    return 0;
}

RecordEnd EndOf(int error)
{
    switch (error)
    {
    case 0:
        return RecordEnd::Written;
    case ENXIO:
    case ENOENT:
    case EPIPE:
        return RecordEnd::NoReader;
    case EAGAIN:
        return RecordEnd::Full;
    default:
        return RecordEnd::Failed;
    }
}

// After a failed write: a reader that has gone away closes the pipe, so that
// the next record finds its successor.
void HandleWriteFailure(int error)
{
    QDB_LOG(kLogTrace, "%s: Write to pipe failed\n");
    if (error != EPIPE || gTelemetryPipeFd < 0)
    {
        return;
    }
    if (close(gTelemetryPipeFd) == 0)
    {
        QDB_LOG(kLogTrace, "%s: On error(%d) pipe closed successfully\n",
                error);
        gTelemetryPipeFd = -1;
    }
    else
    {
        QDB_LOG(kLogWarning,
                "%s: On error(%d) pipe close failed with "
                "error=%d\n",
                error, errno);
    }
}

} // namespace

// --- Records ----------------------------------------------------------------

void TelemetryUpdateHook(void * /*userData*/, int operation,
                         const char *databaseName, const char *tableName,
                         long long rowid)
{
    if (tableName != nullptr)
    {
        NoteRowChange(tableName, operation == SQLITE_INSERT   ? 1
                                 : operation == SQLITE_DELETE ? -1
                                                              : 0);
    }
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

// --- The pipe ---------------------------------------------------------------

int WriteTelemetryBytes(const char *buffer, size_t length)
{
    if (gTelemetryPipeFd == -1)
    {
        if (const int error = OpenPipe())
        {
            return error;
        }
    }
    int budget = kRetryBudget;
    while (gTelemetryPipeFd >= 0 && length > 0)
    {
        const ssize_t written = write(gTelemetryPipeFd, buffer, length);
        if (written >= 0)
        {
            buffer += written;
            length -= static_cast<size_t>(written);
            continue;
        }
        const int error = errno;
        QDB_LOG(kLogTrace, "%s: Write to pipe failed with error: %d, %s \n",
                error, strerrordesc_np(error));
        if (budget < 1 || (error != EINTR && error != EAGAIN))
        {
            return error;
        }
        --budget;
    }
    return 0;
}

int PublishTelemetryLine(const char *lineText)
{
    QDB_LOG(kLogTrace, "%s: buffer =%s\n", lineText);
    const PlatformLock lock(gNamedPipeMutex, gOwnMutex);
    const int error = WriteTelemetryBytes(lineText, std::strlen(lineText));
    CountOne(Figures().records, EndOf(error));
    if (error != 0)
    {
        HandleWriteFailure(error);
    }
    return 0;
}

void CloseTelemetryPipe()
{
    if (gTelemetryPipeFd >= 0)
    {
        close(gTelemetryPipeFd);
        gTelemetryPipeFd = -1;
    }
}

} // namespace qdb
