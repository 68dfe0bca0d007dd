#include "core/log.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>

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

} // namespace

const char *ThreadTag()
{
    thread_local const Tag tag;
    return tag.text;
}

void LogEntry(const char *function)
{
    char line[kTagSize];
    std::snprintf(line, sizeof(line), "%s: %s Entry!!!\n", ThreadTag(),
                  function);
    vexoprintf(kLogCall, kLogCategory, "%s", line);
}

void LogExit(const char *function)
{
    char line[kTagSize];
    std::snprintf(line, sizeof(line), "%s: %s Exit!!!\n", ThreadTag(),
                  function);
    vexoprintf(kLogCall, kLogCategory, "%s", line);
}

} // namespace qdb
