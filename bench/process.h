// Processes beside the bench's own, which has one thread and so may fork at any
// time, and the memory that it shares with them.
#pragma once

#include <sys/mman.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <new>
#include <stdexcept>

namespace qdb::bench
{

// A zeroed T that children made later share. T is trivially destructible.
template <typename T>
class Shared
{
  public:
    Shared() : object_(Map())
    {
    }

    T *operator->() const
    {
        return object_.get();
    }
    T &operator*() const
    {
        return *object_;
    }

  private:
    struct Unmap
    {
        void operator()(T *object) const
        {
            munmap(object, sizeof(T));
        }
    };

    static T *Map()
    {
        void *memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
        {
            throw std::runtime_error("no shared memory");
        }
        return new (memory) T{};
    }

    std::unique_ptr<T, Unmap> object_;
};

// A child that runs `body` and exits with what it returns; 1, with a line on
// standard error, when it throws. It runs no destructor of the parent's objects
// and ends with its parent at the latest.
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

    // Tells it to end, and waits. Throws std::runtime_error unless it ended
    // with 0.
    void End();

  private:
    pid_t pid_;
};

} // namespace qdb::bench
