#include "db/connection.h"

#include "core/lock.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/state.h"
#include "core/statistics.h"
#include "core/status.h"
#include "db/execute.h"
#include "db/turn.h"

#include <string>
#include <string_view>

namespace qdb
{
namespace
{

constexpr int kBusyTimeoutMs = 1000;

// The order is part of the behaviour: the last one's status is the result.
constexpr const char *kOptions[] = {
    "PRAGMA JOURNAL_MODE = OFF;",
    "PRAGMA CACHE_SIZE = -1000;",
    "PRAGMA synchronous = OFF;",
    "PRAGMA foreign_keys = ON;",
};

int SetOptions(sqlite3 *handle)
{
    int status = SQLITE_OK;
    for (const char *option : kOptions)
    {
        status = sqlite3_exec(handle, option, nullptr, nullptr, nullptr);
        if (status != SQLITE_OK)
        {
            QDB_LOG(kLogTrace, "%s: error in executing sqlite3_exec %d\n",
                    status);
        }
    }
    return status;
}

} // namespace

int QDVDBInit()
{
    if (QDVdbHandle != nullptr)
    {
        QDB_LOG(kLogTrace, "%s: QDVdbHandle not NULL.");
        return SQLITE_OK;
    }
    QDB_LOG(kLogTrace, "%s: Opening DB.");
    // Nobody asks SQLite for its use of memory, and counting it costs a lock
    // per allocation. Refused, and then without effect, once SQLite is in use.
    (void)sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    sqlite3 *handle = nullptr;
    const int status = sqlite3_open(DatabasePath().text, &handle);
    QDVdbHandle = handle;
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: Cannot open database: %s\n",
                SqliteErrorMessage().c_str());
        return kFailed;
    }
    sqlite3_busy_timeout(handle, kBusyTimeoutMs);
    return SetOptions(handle);
}

bool HasDatabase()
{
    if (QDVdbHandle == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: Error: DB handle not available");
        return false;
    }
    return true;
}

ErrorText SqliteErrorMessage()
{
    sqlite3 *handle = QDVdbHandle;
    sqlite3_mutex *mutex =
        handle == nullptr ? nullptr : sqlite3_db_mutex(handle);
    sqlite3_mutex_enter(mutex);
    const ErrorText message(sqlite3_errmsg(handle));
    sqlite3_mutex_leave(mutex);
    return message;
}

void LogErrorMessage(int level, const char *function)
{
    QDB_LOG(level, "%s:  %s sqlite errormsg: %s", function,
            SqliteErrorMessage().c_str());
}

StatementPtr PrepareOnce(const char *sql, int *pStatus)
{
    sqlite3_stmt *statement = nullptr;
    *pStatus = sqlite3_prepare_v2(QDVdbHandle, sql, -1, &statement, nullptr);
    return StatementPtr(statement);
}

void CountRows()
{
    for (const std::string_view table : CountedTables())
    {
        int status = SQLITE_OK;
        const StatementPtr statement = PrepareOnce(
            ("SELECT count(*) FROM " + std::string(table)).c_str(), &status);
        if (statement == nullptr ||
            StepStatement(statement.get()) != SQLITE_ROW)
        {
            return;
        }
        PutRows(table.data(), static_cast<uint64_t>(
                                  sqlite3_column_int64(statement.get(), 0)));
    }
}

int CloseDatabase()
{
    FinalizeKeptRead();
    const int status = RunStatusLoop({.endsAtStop = false}, 0,
                                     []
                                     {
                                         return sqlite3_close(QDVdbHandle);
                                     });
    if (IsSuccess(status))
    {
        QDVdbHandle = nullptr;
        QDB_LOG(kLogTrace, "%s: Main exit: closed DB \n");
        return SQLITE_OK;
    }
    return status;
}

} // namespace qdb
