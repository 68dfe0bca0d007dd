// The service's log lines, and its sleeps, for tests.
#pragma once

#include <string>
#include <thread>
#include <vector>

namespace qdb::test
{

// From here on keeps the lines up to a level, without their thread tags, and
// forgets those kept before.
void CaptureLog(int level = 6);

std::vector<std::string> LogLines();

// The same, with where they come from.
struct LogRecord
{
    int level;
    std::thread::id thread;
    std::string line;
};
std::vector<LogRecord> LogRecords();

// Lines that contain the text.
int CountLog(const std::string &text);

// Waits until there are that many.
void WaitForLog(const std::string &text, int count = 1);

// The lines that contain one of the texts.
std::vector<std::string> LinesWith(const std::vector<std::string> &texts);

// From here on sleeps take no time and are counted instead.
void CountSleeps();
void RestoreSleeps();
int SleepCount();
long long SleptMicroseconds();

} // namespace qdb::test
