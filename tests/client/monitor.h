// Which of the service's signals the bus has dropped for the library, counted
// outside of it: by the serials that a second connection sees, which is read
// all the time, and by those that the library takes.
#pragma once

#include "tests/client/shadow.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace qdb::test
{

using Serials = std::map<std::string, std::set<uint64_t>>; // by sender

// The library's thread is the one that makes it. One at a time.
class Monitor
{
  public:
    explicit Monitor(const std::string &address);
    ~Monitor();
    Monitor(const Monitor &) = delete;
    Monitor &operator=(const Monitor &) = delete;

    // Counts what was dropped up to the last signal that the library has taken.
    void Collect();

    // Expects that the shadow, which is at rest, was told of what was dropped
    // since the last call, if not as a loss then by what came on top of it, and
    // of no loss that wasn't one.
    void Judge(const Shadow &shadow);

    // That were dropped so far, and between how many pairs that weren't.
    size_t Signals() const
    {
        return signals_;
    }
    size_t Gaps() const
    {
        return gaps_;
    }

    // The bus has ended; another gives out the same names again.
    void Forget();

  private:
    void Run(std::stop_token stop);
    void Listen(const std::stop_token &stop);

    const std::string address_;
    std::mutex mutex_;
    Serials seen_;             // under mutex_
    bool isListening_ = false; // under mutex_
    size_t signals_ = 0;
    size_t gaps_ = 0;
    size_t judgedGaps_ = 0;
    int losses_ =
        0; // that the shadow was told of, and what else may cover them
    int others_ = 0;
    std::jthread thread_; // ends first
};

} // namespace qdb::test
