// A clock of the test's own for SQLite's strftime, so that change tags are the
// same in every run.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>

namespace qdb::test
{

// While it lives, connections that are opened have this clock. One at a time;
// it outlives those connections.
class StreamClock
{
  public:
    StreamClock() : vfs_(*sqlite3_vfs_find(nullptr))
    {
        vfs_.zName = "stream-clock";
        vfs_.xCurrentTimeInt64 = CurrentTime;
        EXPECT_EQ(sqlite3_vfs_register(&vfs_, 1), SQLITE_OK);
    }
    ~StreamClock()
    {
        sqlite3_vfs_unregister(&vfs_);
    }
    StreamClock(const StreamClock &) = delete;
    StreamClock &operator=(const StreamClock &) = delete;

    // Seconds since 1970, for all threads from now on.
    void Set(sqlite3_int64 seconds)
    {
        seconds_ = seconds;
    }

  private:
    // SQLite counts milliseconds from a noon that lies long before 1970.
    static int CurrentTime(sqlite3_vfs * /*vfs*/, sqlite3_int64 *pTime)
    {
        constexpr sqlite3_int64 kEpochMs = 210866760000000;
        *pTime = kEpochMs + seconds_ * 1000;
        return SQLITE_OK;
    }

    inline static std::atomic<sqlite3_int64> seconds_ = 0;

    sqlite3_vfs vfs_;
};

} // namespace qdb::test
