#include "core/supervisor.h"

#include "core/waiting.h"

#include <systemd/sd-daemon.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qdb
{
namespace
{

constexpr int kKeepVariable = 0; // whoever tells next needs it, too

// The socket is another process's, which may take its time.
void Tell(const char *text)
{
    const Wait wait;
    sd_notify(kKeepVariable, text);
}

} // namespace

bool IsSupervised()
{
    return std::getenv("NOTIFY_SOCKET") != nullptr;
}

void TellStatus(const char *format, ...)
{
    char text[256] = "STATUS=";
    const size_t lead = std::strlen(text);
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text + lead, sizeof(text) - lead, format, arguments);
    va_end(arguments);
    Tell(text);
}

void TellReady()
{
    Tell("READY=1");
}

void TellStopping()
{
    Tell("STOPPING=1\nSTATUS=stopping");
}

} // namespace qdb
