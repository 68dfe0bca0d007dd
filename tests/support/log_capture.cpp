#include "tests/support/log_capture.h"

#include "core/sleep.h"
#include "standin/standin.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>

namespace qdb::test
{
namespace
{

std::mutex gMutex;
std::vector<LogRecord> gRecords; // guarded by gMutex
std::atomic<int> gSleeps = 0;
std::atomic<long long> gSlept = 0;

// "[Thid:123]: text" -> "text"
std::string WithoutTag(const std::string &line)
{
    const size_t end = line.find("]: ");
    return line.rfind("[Thid:", 0) == 0 && end != std::string::npos
               ? line.substr(end + 3)
               : line;
}

void KeepLine(int level, const char *line)
{
    const std::lock_guard<std::mutex> lock(gMutex);
    gRecords.push_back({level, std::this_thread::get_id(), WithoutTag(line)});
}

void CountSleep(unsigned microseconds)
{
    ++gSleeps;
    gSlept += microseconds;
}

} // namespace

void CaptureLog(int level)
{
    {
        const std::lock_guard<std::mutex> lock(gMutex);
        gRecords.clear();
    }
    standin::SetLog(level, KeepLine);
}

std::vector<LogRecord> LogRecords()
{
    const std::lock_guard<std::mutex> lock(gMutex);
    return gRecords;
}

std::vector<std::string> LogLines()
{
    return LinesWith({""});
}

int CountLog(const std::string &text)
{
    return static_cast<int>(LinesWith({text}).size());
}

void WaitForLog(const std::string &text, int count)
{
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            return CountLog(text) >= count;
        }))
        << text;
}

std::vector<std::string> LinesWith(const std::vector<std::string> &texts)
{
    std::vector<std::string> lines;
    for (const LogRecord &record : LogRecords())
    {
        const auto isIn = [&](const std::string &text)
        {
            return record.line.find(text) != std::string::npos;
        };
        if (std::ranges::any_of(texts, isIn))
        {
            lines.push_back(record.line);
        }
    }
    return lines;
}

void CountSleeps()
{
    gSleeps = 0;
    gSlept = 0;
    SetSleepFunction(CountSleep);
}

void RestoreSleeps()
{
    SetSleepFunction(nullptr);
}

int SleepCount()
{
    return gSleeps;
}

long long SleptMicroseconds()
{
    return gSlept;
}

} // namespace qdb::test
