// Which of the service's signals the bus has dropped for the library, counted
// outside of it: by the serials that a second connection sees, which is read
// all the time, and by those that the library takes.
#pragma once

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

struct Dropped
{
    size_t signals = 0; // that the library's connection didn't get
    size_t gaps = 0;    // between two that it got
};

// The library's thread is the one that makes it. One at a time.
class Monitor
{
  public:
    explicit Monitor(const std::string &address);
    ~Monitor();
    Monitor(const Monitor &) = delete;
    Monitor &operator=(const Monitor &) = delete;

    // What was dropped since the last call, up to the last signal that the
    // library has taken.
    Dropped Take();

    // The bus has ended; another gives out the same names again.
    void Forget();

  private:
    void Run(std::stop_token stop);
    void Listen(const std::stop_token &stop);

    const std::string address_;
    std::mutex mutex_;
    Serials seen_;             // under mutex_
    bool isListening_ = false; // under mutex_
    std::jthread thread_;
};

} // namespace qdb::test
