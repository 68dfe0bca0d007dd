#include "tests/support/no_memory.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <new>

extern "C"
{
    void *__real_malloc(size_t size);
    void *__real_calloc(size_t count, size_t size);
    void *__wrap_malloc(size_t size);
    void *__wrap_calloc(size_t count, size_t size);
}

namespace qdb::test
{

thread_local bool tNoMemory = false;
thread_local bool tSparesMemory = false;

namespace
{

thread_local int tCountdown = 0; // 0: nothing is to fail (any more)
thread_local Caller tCaller = Caller::Service;
thread_local bool tIsLooking = false;

// Of all threads.
std::atomic<bool> gCounts = false;
std::atomic<int> gCount = 0;
std::atomic<int> gFirst = 0;
std::atomic<int> gTimes = 0;

// The stand-in's code lies between these.
uintptr_t gPlatformBegin = 0;
uintptr_t gPlatformEnd = 0;

// The platform's libraries are C; that the stand-in isn't must not show.
bool IsPlatformCall()
{
    void *frames[32];
    tIsLooking = true; // the unwinder allocates, too
    const int count = backtrace(frames, static_cast<int>(std::size(frames)));
    tIsLooking = false;
    return std::any_of(frames, frames + count,
                       [](const void *frame)
                       {
                           const auto at = reinterpret_cast<uintptr_t>(frame);
                           return at >= gPlatformBegin && at < gPlatformEnd;
                       });
}

// Whether it is its turn among those of all threads.
bool FailsAmongAll()
{
    const int number = ++gCount;
    return number >= gFirst && number - gFirst < gTimes;
}

// Counts an allocation; whether it is to fail.
bool Fails()
{
    const bool counts = tCountdown > 0 && tCaller == Caller::Service;
    const bool countsForAll = gCounts && !tSparesMemory;
    if ((!tNoMemory && !counts && !countsForAll) || tIsLooking ||
        IsPlatformCall())
    {
        return false;
    }
    return (countsForAll && FailsAmongAll()) || tNoMemory ||
           (counts && --tCountdown == 0);
}

bool FailsForSqlite()
{
    return tCountdown > 0 && tCaller == Caller::Sqlite && --tCountdown == 0;
}

sqlite3_mem_methods gSqliteMemory = {};

void *AllocateForSqlite(int size)
{
    return FailsForSqlite() ? nullptr : gSqliteMemory.xMalloc(size);
}

void *ReallocateForSqlite(void *memory, int size)
{
    return FailsForSqlite() ? nullptr : gSqliteMemory.xRealloc(memory, size);
}

void WrapSqliteMemory()
{
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &gSqliteMemory);
    sqlite3_mem_methods wrapped = gSqliteMemory;
    wrapped.xMalloc = AllocateForSqlite;
    wrapped.xRealloc = ReallocateForSqlite;
    sqlite3_config(SQLITE_CONFIG_MALLOC, &wrapped);
}

// Before any test, and so before an allocation is to fail.
[[maybe_unused]] const bool gIsReady = []
{
    void *frame = nullptr;
    backtrace(&frame, 1);
    dl_find_object found = {};
    if (_dl_find_object(dlsym(RTLD_DEFAULT, "ZOAllocMem"), &found) != 0)
    {
        std::abort();
    }
    gPlatformBegin = reinterpret_cast<uintptr_t>(found.dlfo_map_start);
    gPlatformEnd = reinterpret_cast<uintptr_t>(found.dlfo_map_end);
    WrapSqliteMemory();
    return true;
}();

void *Allocate(size_t size)
{
    return Fails() ? nullptr : __real_malloc(std::max<size_t>(size, 1));
}

void *AllocateOrThrow(size_t size)
{
    void *memory = Allocate(size);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    return memory;
}

} // namespace

void FailAllocations(int n, int times)
{
    gCounts = false;
    gCount = 0;
    gFirst = n;
    gTimes = times;
    gCounts = n > 0;
}

int AllocationCount()
{
    return gCount;
}

NoMemoryAt::NoMemoryAt(int n, Caller caller)
{
    tCountdown = n;
    tCaller = caller;
}

NoMemoryAt::~NoMemoryAt()
{
    tCountdown = 0;
}

bool NoMemoryAt::HasFailed() const
{
    return tCountdown == 0;
}

} // namespace qdb::test

extern "C"
{
    void *__wrap_malloc(size_t size)
    {
        return qdb::test::Fails() ? nullptr : __real_malloc(size);
    }

    void *__wrap_calloc(size_t count, size_t size)
    {
        return qdb::test::Fails() ? nullptr : __real_calloc(count, size);
    }
}

// All forms, since a sanitizer has its own of each and takes note when an
// allocation of one is released by the other.
void *operator new(size_t size)
{
    return qdb::test::AllocateOrThrow(size);
}
void *operator new[](size_t size)
{
    return qdb::test::AllocateOrThrow(size);
}
void *operator new(size_t size, const std::nothrow_t & /*tag*/) noexcept
{
    return qdb::test::Allocate(size);
}
void *operator new[](size_t size, const std::nothrow_t & /*tag*/) noexcept
{
    return qdb::test::Allocate(size);
}
void operator delete(void *memory) noexcept
{
    std::free(memory);
}
void operator delete[](void *memory) noexcept
{
    std::free(memory);
}
void operator delete(void *memory, size_t /*size*/) noexcept
{
    std::free(memory);
}
void operator delete[](void *memory, size_t /*size*/) noexcept
{
    std::free(memory);
}
