#include "tests/support/stream_clock.h"

#include <gtest/gtest.h>

#include <atomic>

namespace qdb::test
{
namespace
{

std::atomic<int64_t> gSeconds = 0;

// SQLite counts milliseconds from a noon that lies long before 1970.
int CurrentTime(sqlite3_vfs * /*vfs*/, sqlite3_int64 *pTime)
{
    constexpr sqlite3_int64 kEpochMs = 210866760000000;
    *pTime = kEpochMs + gSeconds * 1000;
    return SQLITE_OK;
}

} // namespace

StreamClock::StreamClock(int64_t seconds) : vfs_(*sqlite3_vfs_find(nullptr))
{
    Set(seconds);
    vfs_.zName = "stream-clock";
    vfs_.xCurrentTimeInt64 = CurrentTime;
    EXPECT_EQ(sqlite3_vfs_register(&vfs_, 1), SQLITE_OK);
}

StreamClock::~StreamClock()
{
    sqlite3_vfs_unregister(&vfs_);
}

void StreamClock::Set(int64_t seconds)
{
    gSeconds = seconds;
}

} // namespace qdb::test
