// A clock of the test's own for SQLite's strftime, so that change tags are the
// same in every run.
#pragma once

#include <sqlite3.h>

#include <cstdint>

namespace qdb::test
{

// While it lives, connections that are opened have this clock. One at a time;
// it outlives those connections.
class StreamClock
{
  public:
    explicit StreamClock(int64_t seconds);
    ~StreamClock();
    StreamClock(const StreamClock &) = delete;
    StreamClock &operator=(const StreamClock &) = delete;

    // Seconds since 1970, on any thread from now on.
    void Set(int64_t seconds);

  private:
    sqlite3_vfs vfs_;
};

} // namespace qdb::test
