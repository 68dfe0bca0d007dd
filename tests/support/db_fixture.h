// What tests of the database core share: a mirror, injected statuses, and the
// lines that a status loop logs.
#pragma once

#include "core/sleep.h"
#include "core/status.h"
#include "db/statement_ptr.h"
#include "tests/support/log_capture.h"
#include "tests/support/mirror.h"
#include "tests/support/sqlite_faults.h"

#include <sqlite3.h>

#include <string>
#include <vector>

namespace qdb::test
{

using Lines = std::vector<std::string>;

inline Lines operator+(Lines a, const Lines &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline constexpr char kRetry[] = "\nStatusCheck:Retry\n";
inline constexpr char kInvalid[] = "\n Inavlid value received\n";
inline constexpr char kUsedUp[] = "ReturnStatus before update = 0\n";

// The lines of a status that ends a loop.
inline Lines Failure(int status)
{
    return {"retval = " + std::to_string(status) + "\n",
            "Set ReturnStatus as Failure. ReturnStatus before update = 0\n"};
}

// A status that some calls give, one after the other.
struct Fault
{
    int status;
    int times;
};

inline void FailSteps(const std::string &sql, const std::vector<Fault> &faults)
{
    for (const Fault &fault : faults)
    {
        FailSteps(sql, fault.status, fault.times);
    }
}

inline void FailPrepares(const std::string &sql,
                         const std::vector<Fault> &faults)
{
    for (const Fault &fault : faults)
    {
        FailPrepares(sql, fault.status, fault.times);
    }
}

// From here on counts calls, sleeps and lines anew, without faults.
inline void Restart(int logLevel = 6)
{
    ClearSqliteFaults();
    CountSleeps();
    CaptureLog(logLevel);
}

// A connection as another process has it, which doesn't wait for the locks of
// others.
inline ConnectionPtr OpenDatabase(const std::string &path)
{
    sqlite3 *opened = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &opened), SQLITE_OK);
    return ConnectionPtr(opened);
}

class OtherProcess
{
  public:
    explicit OtherProcess(const std::string &path)
        : connection_(OpenDatabase(path))
    {
    }

    int Run(const char *sql) const
    {
        return sqlite3_exec(connection_.get(), sql, nullptr, nullptr, nullptr);
    }

  private:
    ConnectionPtr connection_;
};

class DbTest : public ::testing::Test
{
  protected:
    DbTest()
    {
        Restart();
    }
    ~DbTest() override
    {
        ClearSqliteFaults();
        RestoreSleeps();
    }

    Mirror mirror_;
};

} // namespace qdb::test
