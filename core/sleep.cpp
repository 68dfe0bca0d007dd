#include "core/sleep.h"

#include "core/waiting.h"

#include <unistd.h>

#include <atomic>

namespace qdb
{
namespace
{
std::atomic<SleepFunction> gSleepFunction = nullptr;
}

void SleepMicroseconds(unsigned microseconds)
{
    const Pause pause;
    if (const SleepFunction replaced = gSleepFunction)
    {
        replaced(microseconds);
        return;
    }
    usleep(microseconds);
}

void SetSleepFunction(SleepFunction function)
{
    gSleepFunction = function;
}

} // namespace qdb
