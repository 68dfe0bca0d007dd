// Faults that no platform makes, for the service's process:
//   QDB_TEST_NO_THREADS=A-B  its A-th to B-th threads can't be made
//   QDB_TEST_CLOSE=N         sqlite3_close fails with N, unless it is 0
//   SIGUSR1                  from then on no allocation succeeds
// What the stand-in allocates, and the listener's callback on its thread,
// succeeds: it is not what is tested. A sanitizer has the allocations for
// itself; there the signal has no effect, nor on 32-bit ARM, where Debian's C
// libraries don't tell an unwinder who has called them.

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <sqlite3.h>
#include <unistd.h>
#include <unwind.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C"
{
    int ZOILIsDataManagerReady(void);
    int __real_pthread_create(pthread_t *, const pthread_attr_t *,
                              void *(*)(void *), void *);
    int __wrap_pthread_create(pthread_t *, const pthread_attr_t *,
                              void *(*)(void *), void *);
    int __real_sqlite3_close(sqlite3 *);
    int __wrap_sqlite3_close(sqlite3 *);
    void *__libc_malloc(size_t size);
    void *__libc_calloc(size_t count, size_t size);
    void *__libc_realloc(void *memory, size_t size);
}

namespace
{

std::atomic<bool> gNoMemory = false;

void TakeMemoryAway(int /*signalNumber*/)
{
    constexpr char kLine[] = "no memory from here on\n";
    gNoMemory = true;
    static_cast<void>(!write(STDERR_FILENO, kLine, sizeof(kLine) - 1));
}

[[gnu::constructor]] void InstallSignal()
{
    struct sigaction action = {};
    action.sa_handler = TakeMemoryAway;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, nullptr);
}

} // namespace

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                          void *(*entry)(void *), void *argument)
{
    static std::atomic<int> made = 0;
    const int number = ++made;
    int first = 0;
    int last = 0;
    const char *asked = std::getenv("QDB_TEST_NO_THREADS");
    if (asked != nullptr && std::sscanf(asked, "%d-%d", &first, &last) == 2 &&
        number >= first && number <= last)
    {
        return EAGAIN;
    }
    return __real_pthread_create(thread, attributes, entry, argument);
}

int __wrap_sqlite3_close(sqlite3 *handle)
{
    const char *asked = std::getenv("QDB_TEST_CLOSE");
    const int answer = asked == nullptr ? SQLITE_OK : std::atoi(asked);
    return answer == SQLITE_OK ? __real_sqlite3_close(handle) : answer;
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) &&         \
    !defined(__arm__)

namespace
{

const void *BaseOf(uintptr_t code)
{
    dl_find_object found = {};
    return _dl_find_object(reinterpret_cast<void *>(code), &found) == 0
               ? found.dlfo_map_start
               : nullptr;
}

// Looks for a frame of the stand-in, to the end of the stack: templates that
// both have are the service's copies.
_Unwind_Reason_Code Look(_Unwind_Context *context, void *argument)
{
    static const void *const standin =
        BaseOf(reinterpret_cast<uintptr_t>(&ZOILIsDataManagerReady));
    bool &isStandin = *static_cast<bool *>(argument);
    isStandin = BaseOf(_Unwind_GetIP(context)) == standin;
    return isStandin ? _URC_END_OF_STACK : _URC_NO_REASON;
}

bool IsDenied()
{
    if (!gNoMemory)
    {
        return false;
    }
    bool isStandin = false;
    _Unwind_Backtrace(Look, &isStandin);
    errno = ENOMEM;
    return !isStandin;
}

} // namespace

// In place of the C library's, for all libraries of the process.
extern "C"
{
    void *malloc(size_t size) noexcept
    {
        return IsDenied() ? nullptr : __libc_malloc(size);
    }

    void *calloc(size_t count, size_t size) noexcept
    {
        return IsDenied() ? nullptr : __libc_calloc(count, size);
    }

    void *realloc(void *memory, size_t size) noexcept
    {
        return IsDenied() ? nullptr : __libc_realloc(memory, size);
    }
}

#endif
