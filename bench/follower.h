// Those who follow the service's changes, each a process of its own: one by the
// client library, and one that does the least a subscriber can, which is to
// parse each signal.
#pragma once

#include "bench/process.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace qdb::bench
{

// Written by the child alone, but for `value`.
struct Following
{
    std::atomic<bool> isReady; // it follows, and what stands below is set
    // Of its calls until then, in nanoseconds; waiting isn't one of them.
    std::atomic<int64_t> elapsed;
    std::atomic<int64_t> processor;
    std::atomic<int64_t> heap;   // bytes in use then
    std::atomic<uint64_t> rows;  // that were told of until then
    std::atomic<uint64_t> count; // of changes to the value
    std::atomic<int64_t> value;
};

struct Followed
{
    std::string database;
    std::string table;  // "": all
    std::string column; // in which changes are counted
};

class Follower
{
  public:
    using Body = int (*)(Following &, const Followed &);

    // Returns when it follows. All throw std::runtime_error when that or what
    // they wait for doesn't come.
    Follower(Body body, const Followed &followed);

    // Changes to the value are counted from here on.
    void Begin(int64_t value);

    // Waits for so many. Returns its processor time since Begin in nanoseconds.
    int64_t End(uint64_t count);

    const Following &Seen() const
    {
        return *shared_;
    }

  private:
    Shared<Following> shared_;
    Process process_;
    int64_t begin_ = 0;
};

// What a child may be; both return only when they fail.
int FollowByLibrary(Following &seen, const Followed &followed);
int FollowBySignals(Following &seen, const Followed &followed);

} // namespace qdb::bench
