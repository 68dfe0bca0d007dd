// Waiting for what other processes do.
#pragma once

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>

namespace qdb::bench
{

using Clock = std::chrono::steady_clock;

// Nanoseconds of the steady clock, which all processes share.
inline int64_t Now()
{
    return Clock::now().time_since_epoch().count();
}

// Looks every millisecond. Throws std::runtime_error when the condition hasn't
// come true in time, which is the longest that any measurement may take.
template <typename Condition>
void Await(const std::string &what, Condition condition)
{
    constexpr std::chrono::minutes kLimit(5);
    const Clock::time_point deadline = Clock::now() + kLimit;
    while (!condition())
    {
        if (Clock::now() > deadline)
        {
            throw std::runtime_error("waited in vain for " + what);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace qdb::bench
