// Call counts and injected failures of the platform functions.
//
// A call without a fault costs one addition and one load; only calls that have
// a fault take the lock.
#include "platform/standin/faults.h"

#include "platform/standin/standin.h"
#include "platform/standin/state.h"
#include "platform/standin/support.h"

#include <atomic>
#include <mutex>

namespace standin
{
namespace
{

// A cache line each: callers on different threads use different functions.
struct alignas(64) CallState
{
    std::atomic<uint64_t> count = 0;
    std::atomic<bool> armed = false;

    // Guarded by gLock.
    int status = 0;
    int skip = 0;
    int times = 0;
};

// Constant-initialised, so that they are valid before any constructor runs and
// after any destructor.
constinit std::mutex gLock;
constinit CallState gCalls[kCallCount];

} // namespace

bool Faulted(Call call, int *pStatus)
{
    Start();
    CallState &state = gCalls[call.index];
    state.count.fetch_add(1, std::memory_order_relaxed);
    if (!state.armed.load(std::memory_order_acquire))
    {
        return false;
    }
    const std::lock_guard lock(gLock);
    if (state.skip > 0)
    {
        --state.skip;
        return false;
    }
    if (state.times == 0)
    {
        return false;
    }
    state.armed = --state.times > 0;
    if (pStatus != nullptr)
    {
        *pStatus = state.status;
    }
    return true;
}

Error SetFault(const std::string &call, int status, int times, int skip)
{
    Start();
    const size_t index = CallIndex(call);
    if (index == kCallCount)
    {
        return Print("there is no platform function %s", call.c_str());
    }
    if (call == "FreeObjectList" || call == "ZOFreeMem" ||
        call == "ZOILFreeGeneric" || call == "vexoprintf")
    {
        return Print("%s returns nothing and can't fail", call.c_str());
    }
    if (times < 0 || skip < 0)
    {
        return "times and skip can't be negative";
    }
    CallState &state = gCalls[index];
    const std::lock_guard lock(gLock);
    state.status = status;
    state.times = times;
    state.skip = skip;
    state.armed = times > 0;
    return {};
}

uint64_t CallCount(const std::string &call)
{
    const size_t index = CallIndex(call);
    return index == kCallCount ? 0 : gCalls[index].count.load();
}

void ResetFaults()
{
    const std::lock_guard lock(gLock);
    for (CallState &state : gCalls)
    {
        state.armed = false;
        state.times = 0;
        state.skip = 0;
        state.count = 0;
    }
}

} // namespace standin
