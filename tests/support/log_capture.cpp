#include "tests/support/log_capture.h"

#include "core/sleep.h"
#include "platform/standin/standin.h"

#include <algorithm>
#include <atomic>
#include <mutex>

namespace qdb::test
{
namespace
{

std::mutex gMutex;
std::vector<std::string> gLines; // guarded by gMutex
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

void KeepLine(int /*level*/, const char *line)
{
    const std::lock_guard<std::mutex> lock(gMutex);
    gLines.push_back(WithoutTag(line));
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
        gLines.clear();
    }
    standin::SetLog(level, KeepLine);
}

std::vector<std::string> LogLines()
{
    const std::lock_guard<std::mutex> lock(gMutex);
    return gLines;
}

int CountLog(const std::string &text)
{
    const std::lock_guard<std::mutex> lock(gMutex);
    return static_cast<int>(std::ranges::count_if(gLines,
                                                  [&](const std::string &line)
                                                  {
                                                      return line.find(text) !=
                                                             std::string::npos;
                                                  }));
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
