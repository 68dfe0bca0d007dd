// The one place where the service sleeps.
#pragma once

namespace qdb
{

// Sleeps for the given microseconds; may return early on a signal.
void SleepMicroseconds(unsigned microseconds);

// Replaces the sleep for the whole process; NULL restores it. For tests, which
// count retries without waiting for them. The function must be thread-safe.
using SleepFunction = void (*)(unsigned microseconds);
void SetSleepFunction(SleepFunction function);

} // namespace qdb
