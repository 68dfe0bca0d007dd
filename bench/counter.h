// The other ends, each a process of its own: receivers of the change signals,
// and readers of the telemetry pipe, which tells from outside that a row has
// been written. They count.
#pragma once

#include "bench/process.h"

#include <atomic>
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

// Written by the child alone, but for `keepsArrivals`. `count` comes last, and
// tells that the other words are up to date.
struct Tally
{
    std::atomic<bool> listening;
    std::atomic<bool> keepsArrivals;
    std::atomic<int64_t> last; // time of the last arrival
    std::atomic<uint64_t> arrivalCount;
    std::atomic<uint64_t> count;
    Arrival arrivals[1 << 14];
};

// What a child may be; both return only when they fail.
int CountSignals(Tally &tally);
int CountRecords(Tally &tally, const std::string &pipe);

class Counter
{
  public:
    // Returns when the child listens. All throw std::runtime_error, in which
    // the counter is named, when that or what they wait for doesn't come, and,
    // if it `isExact`, when more has come.
    Counter(std::string name, bool isExact,
            const std::function<int(Tally &)> &body);

    // `keepsArrivals`: those that come next are kept, as many as a Tally holds.
    void Begin(bool keepsArrivals = false);

    // Waits for that many since Begin. Returns when the last one came.
    int64_t End(uint64_t count);

    // Since Begin.
    std::vector<Arrival> Arrivals() const;

  private:
    void CheckNoMore() const;

    const std::string name_;
    const bool isExact_;
    Shared<Tally> tally_;
    Process process_;
    uint64_t expected_ = 0;
};

using Subscribers = std::list<Counter>;

} // namespace qdb::bench
