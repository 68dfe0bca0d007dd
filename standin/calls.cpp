// What happens at the begin and the end of each platform call.
#include "standin/calls.h"

#include "standin/cost.h"
#include "standin/delays.h"
#include "standin/faults.h"
#include "standin/standin.h"
#include "standin/state.h"
#include "standin/support.h"

#include <atomic>

namespace standin
{
namespace
{

// A cache line each: callers on different threads use different functions.
struct alignas(64) CallState
{
    std::atomic<uint64_t> count = 0;
    std::atomic<unsigned> armed = 0; // bits of Armed
};

// Constant-initialised, so that they are valid before any constructor runs and
// after any destructor.
constinit CallState gCalls[kCallCount];

} // namespace

std::string NoSuchCall(const std::string &name)
{
    return Print("there is no platform function %s", name.c_str());
}

void Arm(size_t index, Armed what, bool isOn)
{
    if (isOn)
    {
        gCalls[index].armed.fetch_or(what, std::memory_order_release);
    }
    else
    {
        gCalls[index].armed.fetch_and(~unsigned{what});
    }
}

bool IsArmed(Call call, unsigned anyOf)
{
    return (gCalls[call.index].armed.load(std::memory_order_acquire) & anyOf) !=
           0;
}

void Count(Call call)
{
    gCalls[call.index].count.fetch_add(1, std::memory_order_relaxed);
}

void ResetCounts()
{
    for (CallState &state : gCalls)
    {
        state.count = 0;
    }
}

uint64_t CallCount(const std::string &call)
{
    const size_t index = CallIndex(call);
    return index == kCallCount ? 0 : gCalls[index].count.load();
}

Entry::Entry(Call call, uint32_t oid) : index_(call.index), oid_(oid)
{
    Start();
    Count(call);
    armed_ = gCalls[index_].armed.load(std::memory_order_acquire);
    if (armed_ == 0)
    {
        return;
    }
    if ((armed_ & kDelayed) != 0)
    {
        SleepInCall({.index = index_, .oid = oid_});
    }
    if ((armed_ & kFaulty) != 0)
    {
        fails_ = TakeFault(index_, &status_);
    }
    if ((armed_ & kMeasured) != 0)
    {
        begin_ = ThreadTime();
    }
}

Entry::~Entry()
{
    if (armed_ == 0)
    {
        return;
    }
    if ((armed_ & kMeasured) != 0)
    {
        AddCallCost(begin_);
    }
    if ((armed_ & kDelayedLate) != 0)
    {
        SleepInCall({.index = index_, .oid = oid_, .isLate = true});
    }
}

} // namespace standin
