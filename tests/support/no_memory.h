// Allocations that fail: those of the service's own code by operator new,
// malloc and calloc, and those of Jansson for it.
//
// For executables that wrap malloc and calloc and have no_memory.cpp. What the
// platform and the bus allocate succeeds: they answer for themselves. SQLite's
// allocations fail only where that is asked for.
#pragma once

namespace qdb::test
{

// While true, every such allocation of the calling thread fails.
extern thread_local bool tNoMemory;

enum class Caller
{
    Service,
    Sqlite,
};

// The same for all threads of the process but those that are spared: from the
// n-th one of the service on, the first is number 1, `times` fail; 0: none. The
// count begins anew, and goes on until FailAllocations(0, 0).
void FailAllocations(int n, int times);
int AllocationCount();
extern thread_local bool tSparesMemory;

// While it lives, the n-th one of this thread fails, and no other; the first
// is number 1. Counts those of the service or those of SQLite.
class NoMemoryAt
{
  public:
    explicit NoMemoryAt(int n, Caller caller = Caller::Service);
    ~NoMemoryAt();
    NoMemoryAt(const NoMemoryAt &) = delete;
    NoMemoryAt &operator=(const NoMemoryAt &) = delete;

    // Whether it has come to that.
    bool HasFailed() const;
};

} // namespace qdb::test
