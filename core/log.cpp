#include "core/log.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace qdb
{
namespace
{

constexpr int kTagSize = 100;

struct Tag
{
    char text[kTagSize];

    Tag()
    {
        std::snprintf(text, sizeof(text), "[Thid:%d]", ThreadId());
    }

    static int ThreadId()
    {
        return static_cast<int>(syscall(SYS_gettid));
    }
};

// A line that is cut to its buffer. Entry and exit of functions are the most
// frequent lines by far, and mostly dropped, so they are put together by hand.
class Line
{
  public:
    Line &Add(std::string_view text)
    {
        const size_t length = std::min(text.size(), sizeof(text_) - 1 - size_);
        std::memcpy(text_ + size_, text.data(), length);
        size_ += length;
        text_[size_] = '\0';
        return *this;
    }

    const char *Text() const
    {
        return text_;
    }

  private:
    char text_[kTagSize];
    size_t size_ = 0;
};

void LogCall(const char *function, const char *what)
{
    Line line;
    line.Add(ThreadTag()).Add(": ").Add(function).Add(what);
    vexoprintf(kLogCall, kLogCategory, "%s", line.Text());
}

} // namespace

const char *ThreadTag()
{
    thread_local const Tag tag;
    return tag.text;
}

void LogEntry(const char *function)
{
    LogCall(function, " Entry!!!\n");
}

void LogExit(const char *function)
{
    LogCall(function, " Exit!!!\n");
}

} // namespace qdb
