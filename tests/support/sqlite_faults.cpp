#include "tests/support/sqlite_faults.h"

#include "db/turn.h"

#include <sqlite3.h>

#include <cstring>
#include <mutex>
#include <vector>

namespace qdb::test
{

thread_local bool tSparesSqlite = false;

namespace
{

struct Fault
{
    std::string sql;
    int status;
    int times;
    int skip;
};

// The faults of one function, and the SQL of every call of it.
struct Plan
{
    std::vector<Fault> faults;
    std::vector<std::string> calls;
};

std::mutex gMutex;
bool gWatching = false; // guarded by gMutex, as the plans are
Plan gSteps;
Plan gPrepares;

// Belongs to no operation, and is left alone.
constexpr char kKeptRead[] = "SELECT 1 FROM sqlite_master";

// What SQLite answers at once while a read of the service's is open. To a
// statement that hasn't given a row it isn't a fault yet: the step is made
// again without that read.
bool MayBeOurRead(int status)
{
    return status == SQLITE_BUSY || status == SQLITE_LOCKED ||
           status == SQLITE_ABORT;
}

// The status to give instead of running; SQLITE_OK to run.
int Intercept(Plan &plan, const char *sql, bool again)
{
    const std::lock_guard<std::mutex> lock(gMutex);
    if (tSparesSqlite || !gWatching || sql == nullptr ||
        std::strcmp(sql, kKeptRead) == 0)
    {
        return SQLITE_OK;
    }
    const std::string text = sql;
    plan.calls.push_back(text);
    for (Fault &fault : plan.faults)
    {
        if (text.find(fault.sql) == std::string::npos || fault.times == 0)
        {
            continue;
        }
        if (fault.skip > 0)
        {
            --fault.skip;
            continue;
        }
        if (again && MayBeOurRead(fault.status))
        {
            plan.calls.pop_back();
            return fault.status;
        }
        --fault.times;
        return fault.status;
    }
    return SQLITE_OK;
}

int CountCalls(const Plan &plan, const std::string &sql)
{
    const std::lock_guard<std::mutex> lock(gMutex);
    int count = 0;
    for (const std::string &call : plan.calls)
    {
        count += call.find(sql) != std::string::npos ? 1 : 0;
    }
    return count;
}

} // namespace

void FailSteps(const std::string &sql, int status, int times, int skip)
{
    const std::lock_guard<std::mutex> lock(gMutex);
    gSteps.faults.push_back({sql, status, times, skip});
}

void FailPrepares(const std::string &sql, int status, int times, int skip)
{
    const std::lock_guard<std::mutex> lock(gMutex);
    gPrepares.faults.push_back({sql, status, times, skip});
}

void ClearSqliteFaults()
{
    const std::lock_guard<std::mutex> lock(gMutex);
    gSteps = {};
    gPrepares = {};
    gWatching = true;
}

void IgnoreSqlite()
{
    ClearSqliteFaults();
    const std::lock_guard<std::mutex> lock(gMutex);
    gWatching = false;
}

int StepCount(const std::string &sql)
{
    return CountCalls(gSteps, sql);
}

int PrepareCount(const std::string &sql)
{
    return CountCalls(gPrepares, sql);
}

} // namespace qdb::test

extern "C"
{

    int __real_sqlite3_step(sqlite3_stmt *statement);
    int __real_sqlite3_prepare_v2(sqlite3 *connection, const char *sql,
                                  int length, sqlite3_stmt **pStatement,
                                  const char **pTail);

    int __wrap_sqlite3_step(sqlite3_stmt *statement)
    {
        const bool again =
            qdb::ReadIsKept() && sqlite3_stmt_busy(statement) == 0;
        const int status = qdb::test::Intercept(qdb::test::gSteps,
                                                sqlite3_sql(statement), again);
        return status == SQLITE_OK ? __real_sqlite3_step(statement) : status;
    }

    int __wrap_sqlite3_prepare_v2(sqlite3 *connection, const char *sql,
                                  int length, sqlite3_stmt **pStatement,
                                  const char **pTail)
    {
        const int status =
            qdb::test::Intercept(qdb::test::gPrepares, sql, false);
        if (status != SQLITE_OK && status != SQLITE_ROW &&
            status != SQLITE_DONE)
        {
            return status;
        }
        const int prepared = __real_sqlite3_prepare_v2(connection, sql, length,
                                                       pStatement, pTail);
        return prepared == SQLITE_OK ? status : prepared;
    }
}
