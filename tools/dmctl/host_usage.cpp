#include "tools/dmctl/host_usage.h"

#include "objects/schema/system_tables.h"
#include "tools/dmctl/host_objects.h"

namespace qdb
{

UsageWindow::UsageWindow(size_t buckets, time_t seconds)
    : mSize(buckets), mSeconds(seconds)
{
}

void UsageWindow::Add(time_t now, uint16_t percent)
{
    const time_t start = now - now % mSeconds;
    if (mBuckets.empty() || mBuckets.back().start < start)
    {
        mBuckets.push_back(
            {.start = start, .least = {percent, now}, .most = {percent, now}});
    }
    const time_t oldest =
        mBuckets.back().start - static_cast<time_t>(mSize) * mSeconds;
    while (mBuckets.front().start < oldest)
    {
        mBuckets.pop_front();
    }
    Bucket &bucket = mBuckets.back();
    bucket.sum += percent;
    bucket.count++;
    if (percent < bucket.least.percent)
    {
        bucket.least = {percent, now};
    }
    if (percent > bucket.most.percent)
    {
        bucket.most = {percent, now};
    }
}

uint16_t UsageWindow::Average() const
{
    uint64_t sum = 0;
    uint64_t count = 0;
    for (const Bucket &bucket : mBuckets)
    {
        sum += bucket.sum;
        count += bucket.count;
    }
    return count == 0 ? uint16_t{0} : static_cast<uint16_t>(sum / count);
}

UsageWindow::Extreme UsageWindow::Least() const
{
    Extreme least = mBuckets.empty() ? Extreme{} : mBuckets.front().least;
    for (const Bucket &bucket : mBuckets)
    {
        least = bucket.least.percent < least.percent ? bucket.least : least;
    }
    return least;
}

UsageWindow::Extreme UsageWindow::Most() const
{
    Extreme most;
    for (const Bucket &bucket : mBuckets)
    {
        most = bucket.most.percent > most.percent ? bucket.most : most;
    }
    return most;
}

std::vector<uint16_t> UsageWindow::History() const
{
    std::vector<uint16_t> history(mSize, 0);
    if (mBuckets.empty())
    {
        return history;
    }
    const time_t current = mBuckets.back().start;
    for (const Bucket &bucket : mBuckets)
    {
        const auto age =
            static_cast<size_t>((current - bucket.start) / mSeconds);
        if (age >= 1 && age <= mSize)
        {
            history[age - 1] = static_cast<uint16_t>(bucket.sum / bucket.count);
        }
    }
    return history;
}

void UsageWindows::Add(time_t now, uint16_t percent)
{
    hour.Add(now, percent);
    day.Add(now, percent);
    week.Add(now, percent);
}

namespace
{

uint16_t Percent(int64_t part, int64_t whole)
{
    return whole <= 0 || part <= 0 ? uint16_t{0}
           : part >= whole         ? uint16_t{100}
                                   : static_cast<uint16_t>(part * 100 / whole);
}

// The first line of /proc/stat: "cpu" and the ticks spent in user, nice,
// system, idle, iowait and further states. False when there is none.
bool AddProcessorSample(const HostFiles &files, UsageHistory &history,
                        time_t now)
{
    const std::vector<std::string> lines =
        Lines(files.Text("/proc/stat").value_or(""));
    const std::vector<std::string> words =
        Words(lines.empty() ? "" : lines.front());
    if (words.size() < 6 || words.front() != "cpu")
    {
        return false;
    }
    int64_t all = 0;
    // The guest's ticks behind the eighth are in the user's already.
    for (size_t index = 1; index < words.size() && index <= 8; index++)
    {
        all += ParseNumber(words[index]).value_or(0);
    }
    const int64_t busy = all - ParseNumber(words[4]).value_or(0) -
                         ParseNumber(words[5]).value_or(0);
    history.processors.Add(
        now, Percent(busy - history.busyTicks, all - history.allTicks));
    history.busyTicks = busy;
    history.allTicks = all;
    return true;
}

bool AddMemorySample(const HostFiles &files, UsageHistory &history, time_t now)
{
    const std::optional<int64_t> total = MemoryKibibytes(files, "MemTotal:");
    const std::optional<int64_t> available =
        MemoryKibibytes(files, "MemAvailable:");
    if (!total || !available)
    {
        return false;
    }
    history.memory.Add(now, Percent(*total - *available, *total));
    return true;
}

Json HistoryArray(const UsageWindow &window)
{
    Json array(json_array());
    for (const uint16_t percent : window.History())
    {
        Append(array, Number(percent));
    }
    return array;
}

void AddUsage(HostView &view, const char *name, int probe,
              const UsageWindows &windows)
{
    const std::string fqdd = std::string("Host.Usage.") + name;
    HostValues values(kTblUsageStatisticsObj);
    values.Text("Key", HostKey(0x39, fqdd));
    values.Number("probeNumber", probe);
    values.Number("averageLastHour", windows.hour.Average());
    values.Number("averageLastDay", windows.day.Average());
    values.Number("averageLastWeek", windows.week.Average());
    values.Number("minLastHour", windows.hour.Least().percent);
    values.Number("minLastHourTimeStamp", windows.hour.Least().time);
    values.Number("minLastday", windows.day.Least().percent);
    values.Number("minLastDayTimeStamp", windows.day.Least().time);
    values.Number("minLastWeek", windows.week.Least().percent);
    values.Number("minLastWeekTimeStamp", windows.week.Least().time);
    values.Number("maxLastHour", windows.hour.Most().percent);
    values.Number("maxLastHourTimeStamp", windows.hour.Most().time);
    values.Number("maxLastday", windows.day.Most().percent);
    values.Number("maxLastDayTimeStamp", windows.day.Most().time);
    values.Number("maxLastWeek", windows.week.Most().percent);
    values.Number("maxLastWeekTimeStamp", windows.week.Most().time);
    values.Number("peakUtilization", windows.week.Most().percent);
    values.Number("peakUtilizationTimeStamp", windows.week.Most().time);
    values.Array("usageHistStatistics_DOT_lastHour",
                 HistoryArray(windows.hour));
    values.Array("usageHistStatistics_DOT_lastDay", HistoryArray(windows.day));
    values.Array("usageHistStatistics_DOT_lastWeek",
                 HistoryArray(windows.week));
    view.Add(HostKind::Usage, name, 0x39, fqdd, values);
}

} // namespace

void CollectUsage(HostView &view, UsageHistory &history, time_t now)
{
    if (AddProcessorSample(view.Files(), history, now))
    {
        AddUsage(view, "CPU", 1, history.processors);
    }
    if (AddMemorySample(view.Files(), history, now))
    {
        AddUsage(view, "Memory", 2, history.memory);
    }
}

} // namespace qdb
