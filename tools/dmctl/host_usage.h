// How busy something has been over the last hour, day and week.
//
// Samples go into buckets of fixed length, so that a week costs a few dozen
// numbers; a window is the run of its newest buckets.
#pragma once

#include <cstdint>
#include <ctime>
#include <deque>
#include <vector>

namespace qdb
{

class UsageWindow
{
  public:
    // Covers `buckets` buckets of `seconds` each.
    UsageWindow(size_t buckets, time_t seconds);

    // Adds a sample. A clock that was set back is taken as standing still.
    void Add(time_t now, uint16_t percent);

    // Over the whole window; 0 before the first sample.
    uint16_t Average() const;

    struct Extreme
    {
        uint16_t percent = 0;
        time_t time = 0;
    };
    Extreme Least() const;
    Extreme Most() const;

    // The average of each complete bucket, newest first; 0 for those that lie
    // before the first sample. As many as the window has buckets.
    std::vector<uint16_t> History() const;

  private:
    struct Bucket
    {
        time_t start = 0;
        uint64_t sum = 0;
        uint64_t count = 0;
        Extreme least;
        Extreme most;
    };

    size_t mSize;
    time_t mSeconds;
    std::deque<Bucket> mBuckets; // oldest first; at most mSize + 1
};

// The windows of one object.
struct UsageWindows
{
    UsageWindow hour{60, 60};
    UsageWindow day{24, 3600};
    UsageWindow week{14, 12 * 3600};

    void Add(time_t now, uint16_t percent);
};

// What has to be kept between two looks at a machine's use.
class UsageHistory
{
  public:
    UsageWindows processors;
    UsageWindows memory;

    // The last counters of processor time, to measure the load in between.
    int64_t busyTicks = 0;
    int64_t allTicks = 0;
};

} // namespace qdb
