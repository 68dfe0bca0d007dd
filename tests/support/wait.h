// Waiting for a condition instead of sleeping and hoping.
#pragma once

#include <chrono>
#include <thread>

namespace qdb::test
{

// Generous: it is reached only when a test fails, also under sanitizers on a
// busy machine.
inline constexpr int kDeadlineMs = 30000;

// Whether the condition came true before the deadline.
template <typename Condition>
bool WaitUntil(Condition condition, int deadlineMs = kDeadlineMs)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(deadlineMs);
    while (!condition())
    {
        if (Clock::now() > deadline)
        {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace qdb::test
