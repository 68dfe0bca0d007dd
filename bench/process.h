// Processes beside the bench's own, which has one thread and so may fork at any
// time; the memory that it shares with them; and waiting for what they do.
#pragma once

#include <sys/mman.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>

namespace qdb::bench
{

// Nanoseconds of the steady clock, which all processes share.
int64_t Now();

double Seconds(int64_t nanoseconds);

// Of a process so far, in nanoseconds. Throws std::runtime_error when it is
// gone.
int64_t ProcessorTime(pid_t process);

// Looks every millisecond until the condition holds. Throws std::runtime_error
// when it doesn't in the longest time that a measurement may take, and when a
// child ends meanwhile.
void Await(const std::string &what, const std::function<bool()> &condition);

// Waits in the same way until somebody serves the Unix socket. Its file is
// there a moment earlier.
void AwaitServer(const std::string &path);

// A zeroed T that children made later share. T is trivially destructible.
template <typename T>
class Shared
{
  public:
    Shared()
        : memory_(mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE,
                       MAP_SHARED | MAP_ANONYMOUS, -1, 0))
    {
        if (memory_ == MAP_FAILED)
        {
            throw std::runtime_error("no shared memory");
        }
        object_ = new (memory_) T{};
    }
    ~Shared()
    {
        munmap(memory_, sizeof(T));
    }
    Shared(const Shared &) = delete;
    Shared &operator=(const Shared &) = delete;

    T &operator*() const
    {
        return *object_;
    }
    T *operator->() const
    {
        return object_;
    }

  private:
    void *memory_;
    T *object_;
};

// A child that runs `body`, which may become another program, and exits with
// what it returns; 1, with a line on standard error, when it throws. It ends
// with its parent at the latest.
class Process
{
  public:
    // Throws std::runtime_error when the process can't be made.
    explicit Process(const std::function<int()> &body);
    ~Process(); // kills it if it still runs
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    pid_t Id() const
    {
        return pid_;
    }

    // Sends SIGTERM, and waits. Throws std::runtime_error unless it ends with
    // 0.
    void End();

  private:
    pid_t pid_;
};

} // namespace qdb::bench
