// What the stand-in costs the process it is in.
#include "standin/cost.h"

#include "standin/calls.h"
#include "standin/standin.h"
#include "standin/state.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <limits>
#include <mutex>
#include <vector>

namespace standin
{
namespace
{

constinit std::atomic<bool> gMeasuring = false;
constinit std::atomic<int64_t> gReading = 0; // what one look at the clock costs
constinit std::atomic<uint64_t> gCalls = 0;
constinit std::atomic<int64_t> gCallTime = 0;
constinit std::atomic<int64_t> gCallbackTime = 0;

struct OwnThreads
{
    std::mutex lock; // guards all below
    std::vector<clockid_t> alive;
    int64_t ended = 0; // processor time of those that are no more
};

OwnThreads &TheThreads()
{
    static OwnThreads *const threads = new OwnThreads;
    return *threads;
}

int64_t Read(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

clockid_t OwnClock()
{
    clockid_t clock = CLOCK_THREAD_CPUTIME_ID;
    pthread_getcpuclockid(pthread_self(), &clock);
    return clock;
}

// The least of several runs: what disturbs one only adds to it.
int64_t MeasureReading()
{
    int64_t least = std::numeric_limits<int64_t>::max();
    for (int run = 0; run < 20; ++run)
    {
        constexpr int kReadings = 500;
        const int64_t begin = ThreadTime();
        for (int i = 1; i < kReadings; ++i)
        {
            ThreadTime();
        }
        least = std::min(least, (ThreadTime() - begin) / kReadings);
    }
    return least;
}

constexpr bool IsObjectCall(std::string_view call)
{
    return call.ends_with("_get_object") ||
           call.starts_with("client_get_obj") ||
           call.starts_with("ZOILGetObj") || call.starts_with("ZOILList") ||
           call.starts_with("ZOILDOGet");
}

} // namespace

int64_t ThreadTime()
{
    return Read(CLOCK_THREAD_CPUTIME_ID);
}

void AddCallCost(int64_t begin)
{
    const int64_t spent = ThreadTime() - begin - gReading;
    gCalls.fetch_add(1, std::memory_order_relaxed);
    gCallTime.fetch_add(spent, std::memory_order_relaxed);
}

CallbackScope::CallbackScope()
    : isMeasured_(gMeasuring), begin_(isMeasured_ ? ThreadTime() : 0)
{
}

CallbackScope::~CallbackScope()
{
    if (isMeasured_)
    {
        gCallbackTime += ThreadTime() - begin_ - gReading;
    }
}

OwnThread::OwnThread()
{
    OwnThreads &threads = TheThreads();
    const std::lock_guard lock(threads.lock);
    threads.alive.push_back(OwnClock());
}

OwnThread::~OwnThread()
{
    OwnThreads &threads = TheThreads();
    const std::lock_guard lock(threads.lock);
    std::erase(threads.alive, OwnClock());
    threads.ended += ThreadTime();
}

void MeasureCost(bool isOn)
{
    Start();
    if (isOn)
    {
        gReading = MeasureReading();
    }
    gMeasuring = isOn;
    for (size_t index = 0; index < kCallCount; ++index)
    {
        Arm(index, kMeasured, isOn && IsObjectCall(kCalls[index]));
    }
}

CallCost Cost()
{
    CallCost cost;
    cost.calls = gCalls;
    cost.cpuNanoseconds = gCallTime;
    cost.clockNanoseconds = static_cast<int64_t>(cost.calls) * 2 * gReading;
    OwnThreads &threads = TheThreads();
    const std::lock_guard lock(threads.lock);
    cost.ownThreadNanoseconds = threads.ended - gCallbackTime;
    for (const clockid_t clock : threads.alive)
    {
        cost.ownThreadNanoseconds += Read(clock);
    }
    return cost;
}

} // namespace standin
