// The receivers of the change signals, each a process of its own.
#pragma once

#include "bench/process.h"

#include <cstdint>
#include <list>
#include <string>
#include <vector>

namespace qdb::bench
{

// When a signal about an object arrived, in nanoseconds of the steady clock.
struct Arrival
{
    uint32_t oid;
    int64_t time;
};

// Processes that count the signals on the system bus. One run at a time: Begin,
// some signals, End.
class Subscribers
{
  public:
    // Returns when all listen. Throws std::runtime_error when one can't.
    explicit Subscribers(size_t count);
    ~Subscribers();
    Subscribers(const Subscribers &) = delete;
    Subscribers &operator=(const Subscribers &) = delete;

    // `withArrivals`: the first one keeps the times, of kMaxArrivals signals at
    // most. Throws std::runtime_error when one has had more signals than the
    // last End waited for.
    void Begin(bool withArrivals = false);

    // Waits until each has had that many signals. Returns when the last of
    // them arrived at the last one. Throws std::runtime_error, in which
    // `sender` is named, when they don't come or more have come.
    int64_t End(uint64_t signals, const std::string &sender);

    // Of the last run.
    std::vector<Arrival> Arrivals() const;

    static constexpr size_t kMaxArrivals = 1 << 16;

  private:
    struct One;

    std::list<One> all_;
};

} // namespace qdb::bench
