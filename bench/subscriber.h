// The other ends: a process that receives the change signals, and a thread that
// empties the telemetry pipe.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace qdb::bench
{

using Clock = std::chrono::steady_clock;

// Sent behind the last signal of a run, by the same connection: when it has
// arrived, everything before it has.
inline constexpr char kFence[] = "fence";

struct Tally;

// A child process that counts the signals on the system bus. One run at a time:
// Begin, some signals, WaitFor if the last one matters, a fence, End.
class Subscriber
{
  public:
    // Returns when the child listens. To be made while the process has one
    // thread. Throws std::runtime_error when the child can't listen.
    Subscriber();
    ~Subscriber();
    Subscriber(const Subscriber &) = delete;
    Subscriber &operator=(const Subscriber &) = delete;

    void Begin();

    // When the last of that many signals arrived. Throws std::runtime_error
    // when they stop coming before.
    Clock::time_point WaitFor(uint64_t signals) const;

    // Waits for the fence. Returns the bytes of all texts; throws
    // std::runtime_error unless there were exactly that many signals.
    uint64_t End(uint64_t signals) const;

  private:
    struct Unmap
    {
        void operator()(Tally *tally) const;
    };

    uint64_t SignalsSoFar() const;

    std::unique_ptr<Tally, Unmap> tally_; // shared with the child
    pid_t child_;

    // The counts at Begin.
    uint64_t signals_ = 0;
    uint64_t bytes_ = 0;
    uint64_t fences_ = 0;
};

// Reads and forgets all that is written into a named pipe, up to a NUL, which
// no record contains.
class PipeDrain
{
  public:
    // Throws std::runtime_error when the pipe can't be opened.
    explicit PipeDrain(const std::string &path);
    ~PipeDrain();
    PipeDrain(const PipeDrain &) = delete;
    PipeDrain &operator=(const PipeDrain &) = delete;

  private:
    void Run();

    int fd_;
    std::thread thread_;
};

} // namespace qdb::bench
