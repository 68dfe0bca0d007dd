// Injected failures of the platform functions.
#include "standin/faults.h"

#include "standin/calls.h"
#include "standin/standin.h"
#include "standin/state.h"
#include "standin/support.h"

#include <mutex>

namespace standin
{
namespace
{

struct Fault
{
    int status = 0;
    int skip = 0;
    int times = 0;
};

// Constant-initialised, as the calls' own state is.
constinit std::mutex gLock;
constinit Fault gFaults[kCallCount]; // guarded by gLock

} // namespace

bool TakeFault(size_t index, int *pStatus)
{
    const std::lock_guard lock(gLock);
    Fault &fault = gFaults[index];
    if (fault.skip > 0)
    {
        --fault.skip;
        return false;
    }
    if (fault.times == 0)
    {
        return false;
    }
    --fault.times;
    Arm(index, kFaulty, fault.times > 0);
    *pStatus = fault.status;
    return true;
}

Error SetFault(const std::string &call, int status, int times, int skip)
{
    Start();
    const size_t index = CallIndex(call);
    if (index == kCallCount)
    {
        return NoSuchCall(call);
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
    const std::lock_guard lock(gLock);
    gFaults[index] = {status, skip, times};
    Arm(index, kFaulty, times > 0);
    return {};
}

void ResetFaults()
{
    const std::lock_guard lock(gLock);
    for (size_t index = 0; index < kCallCount; ++index)
    {
        gFaults[index] = {};
        Arm(index, kFaulty, false);
    }
}

} // namespace standin
