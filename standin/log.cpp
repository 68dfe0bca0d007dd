// The logging library: vexoprintf.
//
// A line that is dropped costs two loads. A line that is written is
// formatted on the stack, unless it is long, and goes out in one write, so
// that lines of different threads don't mix. Only written lines are counted.
#include "standin/log.h"

#include "platform/vexolog.h"
#include "standin/calls.h"
#include "standin/delays.h"
#include "standin/standin.h"
#include "standin/state.h"
#include "standin/support.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace standin
{
namespace
{

// The greatest level that passes. Lets everything through until the
// environment has been read, so that the first line finds out.
constexpr int kNotRead = INT_MAX;
constinit std::atomic<int> gLevel = kNotRead;
constinit std::atomic<LogSink> gSink = nullptr;

// No line has a level as low as that.
constexpr int kNothing = INT_MIN;

void WriteLine(std::string_view line)
{
    while (!line.empty())
    {
        const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
        if (written < 0 && errno != EINTR)
        {
            return; // nowhere to tell it
        }
        line.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
    }
}

// `text` has room for two more characters behind `length`.
void Emit(int level, char *text, size_t length)
{
    if (const LogSink sink = gSink.load(std::memory_order_acquire))
    {
        sink(level, text);
        return;
    }
    while (length > 0 && text[length - 1] == '\n')
    {
        --length;
    }
    text[length++] = '\n';
    WriteLine({text, length});
}

// A line for which delays are armed, formatted before anything else so that
// they can look at it. Sleeps when it is made and, for late ones, at its end.
class DelayedLine
{
  public:
    __attribute__((format(printf, 2, 0)))
    DelayedLine(const char *format, va_list arguments)
        : format_(format)
    {
        if (std::vsnprintf(line_, sizeof(line_), format, arguments) < 0)
        {
            *line_ = '\0';
        }
        Sleep(false);
    }
    ~DelayedLine()
    {
        Sleep(true);
    }
    DelayedLine(const DelayedLine &) = delete;
    DelayedLine &operator=(const DelayedLine &) = delete;

  private:
    void Sleep(bool isLate)
    {
        SleepInCall({.index = Call("vexoprintf").index,
                     .isLate = isLate,
                     .format = format_,
                     .line = line_});
    }

    const char *format_;
    char line_[1024];
};

__attribute__((format(printf, 2, 0))) void
WriteFormatted(int level, const char *format, va_list arguments)
{
    if (level > gLevel.load(std::memory_order_relaxed))
    {
        return;
    }
    Start();
    if (level > gLevel.load(std::memory_order_relaxed))
    {
        return;
    }
    Count(Call("vexoprintf"));

    char line[1024];
    va_list again;
    va_copy(again, arguments);
    const int length =
        std::vsnprintf(line, sizeof(line) - 1, format, arguments);
    if (length >= 0 && static_cast<size_t>(length) < sizeof(line) - 1)
    {
        Emit(level, line, static_cast<size_t>(length));
    }
    else if (length >= 0)
    {
        std::string longLine(static_cast<size_t>(length) + 1, '\0');
        std::vsnprintf(longLine.data(), longLine.size(), format, again);
        Emit(level, longLine.data(), static_cast<size_t>(length));
    }
    va_end(again);
}

} // namespace

void StartLog(const char *level)
{
    int number = 0;
    if (level != nullptr)
    {
        char *end = nullptr;
        const long value = std::strtol(level, &end, 10);
        if (*end != '\0' || value < 0 || value > INT_MAX)
        {
            Complain("QDB_STANDIN_LOG isn't a level: %s", level);
        }
        else
        {
            number = static_cast<int>(value);
        }
    }
    int expected = kNotRead;
    gLevel.compare_exchange_strong(expected, number == 0 ? kNothing : number);
}

void SetLog(int level, LogSink sink)
{
    Start();
    gSink.store(sink, std::memory_order_release);
    gLevel = level <= 0 ? kNothing : level;
}

} // namespace standin

extern "C" void vexoprintf(int level, int category, const char *format, ...)
{
    using namespace standin;
    static_cast<void>(category);
    va_list arguments;
    va_start(arguments, format);
    if (IsArmed(Call("vexoprintf"), kDelayed | kDelayedLate))
    {
        va_list again;
        va_copy(again, arguments);
        const DelayedLine line(format, again);
        va_end(again);
        WriteFormatted(level, format, arguments);
    }
    else
    {
        WriteFormatted(level, format, arguments);
    }
    va_end(arguments);
}
