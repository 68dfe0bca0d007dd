#include "tests/sweep/fault.h"

#include "standin/standin.h"
#include "tests/support/no_memory.h"
#include "tests/support/sqlite_faults.h"

#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace qdb::sweep
{
namespace
{

Fault gFault; // changed while nothing counts

// Write and Send.
std::atomic<bool> gWriteCounts = false;
std::atomic<bool> gSendCounts = false;
std::atomic<int> gCount = 0;
thread_local bool tIsSpared = false;

uint64_t gCallsBefore = 0; // of a platform function

int Times(const Fault &fault)
{
    return fault.forGood ? test::kForever : 1;
}

// Counts a call; whether it is to fail.
bool Fails(const std::atomic<bool> &counts)
{
    if (!counts || tIsSpared)
    {
        return false;
    }
    const int number = gCount++;
    return number == gFault.at || (gFault.forGood && number > gFault.at);
}

bool IsPipe(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
}

void Hang()
{
    const Kind &kind = gFault.kind;
    standin::SetDelay(
        kind.function,
        {.microseconds = standin::kHang, .skip = gFault.at, .times = 1});
}

} // namespace

void Arm(const Fault &fault)
{
    gFault = fault;
    gCount = 0;
    const Kind &kind = fault.kind;
    switch (kind.call)
    {
    case Call::Step:
        test::ClearSqliteFaults();
        test::FailSteps("", kind.status, Times(fault), fault.at);
        break;
    case Call::Prepare:
        test::ClearSqliteFaults();
        test::FailPrepares("", kind.status, Times(fault), fault.at);
        break;
    case Call::Allocation:
        test::FailAllocations(fault.at + 1, Times(fault));
        break;
    case Call::Platform:
        gCallsBefore = standin::CallCount(kind.function);
        standin::SetFault(kind.function, kind.status, Times(fault), fault.at);
        break;
    case Call::Hang:
        gCallsBefore = standin::CallCount(kind.function);
        Hang();
        break;
    case Call::Write:
        gWriteCounts = true;
        break;
    case Call::Send:
        gSendCounts = true;
        break;
    }
}

void LetGo()
{
    standin::ReleaseDelays();
}

int Disarm()
{
    const Kind &kind = gFault.kind;
    int count = gCount;
    switch (kind.call)
    {
    case Call::Step:
        count = test::StepCount("");
        break;
    case Call::Prepare:
        count = test::PrepareCount("");
        break;
    case Call::Allocation:
        count = test::AllocationCount();
        break;
    case Call::Platform:
    case Call::Hang:
        count =
            static_cast<int>(standin::CallCount(kind.function) - gCallsBefore);
        standin::SetFault(kind.function, 0, 0);
        break;
    case Call::Write:
    case Call::Send:
        break;
    }
    test::IgnoreSqlite();
    test::FailAllocations(0, 0);
    gWriteCounts = false;
    gSendCounts = false;
    LetGo();
    return count;
}

void SpareThisThread()
{
    tIsSpared = true;
    test::tSparesSqlite = true;
    test::tSparesMemory = true;
}

} // namespace qdb::sweep

extern "C"
{
    ssize_t __real_write(int fd, const void *bytes, size_t size);
    ssize_t __wrap_write(int fd, const void *bytes, size_t size);
    int __real_sd_bus_send(sd_bus *bus, sd_bus_message *message,
                           uint64_t *cookie);
    int __wrap_sd_bus_send(sd_bus *bus, sd_bus_message *message,
                           uint64_t *cookie);

    ssize_t __wrap_write(int fd, const void *bytes, size_t size)
    {
        using namespace qdb::sweep;
        if (!gWriteCounts || !IsPipe(fd) || !Fails(gWriteCounts))
        {
            return __real_write(fd, bytes, size);
        }
        if (gFault.kind.status == 0)
        {
            return __real_write(fd, bytes, (size + 1) / 2);
        }
        errno = gFault.kind.status;
        return -1;
    }

    int __wrap_sd_bus_send(sd_bus *bus, sd_bus_message *message,
                           uint64_t *cookie)
    {
        using namespace qdb::sweep;
        return Fails(gSendCounts) ? -gFault.kind.status
                                  : __real_sd_bus_send(bus, message, cookie);
    }
}
