// The other ends, each a process of its own: the receivers of the change
// signals, and the reader of the telemetry pipe.
#pragma once

#include "bench/process.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

namespace qdb::bench
{

using Clock = std::chrono::steady_clock;

// Sent behind the last signal of a run, by the same connection: when it has
// arrived, everything before it has.
inline constexpr char kFence[] = "fence";

// When a signal about an object arrived, in nanoseconds of the steady clock.
struct Arrival
{
    uint32_t oid;
    int64_t time;
};

// What one run brought.
struct Received
{
    uint64_t digest; // of all texts, without their tags
    int64_t last;    // when the last signal arrived at the last subscriber
};

struct Tally;

// Processes that count the signals on the system bus. One run at a time: Begin,
// some signals, a fence, End.
class Subscribers
{
  public:
    // Returns when all listen. Throws std::runtime_error when one can't.
    explicit Subscribers(size_t count);
    ~Subscribers();
    Subscribers(const Subscribers &) = delete;
    Subscribers &operator=(const Subscribers &) = delete;

    // `withArrivals`: the first one keeps the times, of kMaxArrivals signals at
    // most.
    void Begin(bool withArrivals = false);

    // Waits for the fence at all of them. Throws std::runtime_error, in which
    // `sender` is named, unless each had exactly that many signals, and all the
    // same.
    Received End(uint64_t signals, const std::string &sender) const;

    // Of the last run.
    std::vector<Arrival> Arrivals() const;

    static constexpr size_t kMaxArrivals = 1 << 16;

  private:
    struct One;

    std::list<One> all_;
};

// A process that counts the records of a telemetry pipe.
class PipeReader
{
  public:
    // Returns when the pipe is open. Throws std::runtime_error when it can't
    // be.
    explicit PipeReader(const std::string &path);

    // Waits for that many records since the last call. Throws
    // std::runtime_error when it were more or less.
    void Expect(uint64_t records);

    // Forgets what has come so far.
    void Skip();

  private:
    // Written by the child alone.
    struct Count
    {
        std::atomic<bool> open;
        std::atomic<uint64_t> bars; // the character that divides the fields
    };

    void Read(const std::string &path) const;

    Shared<Count> count_;
    uint64_t before_ = 0; // bars
    Process process_;
};

} // namespace qdb::bench
