// What is measured beside each other: the service and the loops, each a process
// of its own that does one thing after another when it is asked.
#pragma once

#include "bench/process.h"
#include "bench/workload.h"

#include <cstdint>
#include <functional>
#include <string>

namespace qdb::bench
{

enum class Kind
{
    Prepare,   // the step's objects, as its events find them
    Run,       // the step
    Changes,   // the step's events at kChangesPerSecond
    Reconcile, // let the NC thread go; answered after its first passes
    Idle,      // do nothing for `seconds`
    Memory,
    Stop,
};

struct Request
{
    Kind kind;
    Step step;
    int seconds;
};

// Of one request; times in nanoseconds. Points in time are of the steady clock.
struct Cost
{
    int64_t begin; // the first event
    int64_t end;   // the last operation's end
    int64_t processor;

    // Of the service alone, and not in `processor`: the stand-in's event
    // thread, and its answers to the service's calls.
    int64_t eventThread;
    int64_t store;

    int64_t rowsWritten; // as SQLite counts them; no time
};

struct Memory
{
    int64_t heap;     // bytes in use
    int64_t resident; // bytes
};

// How the service came up, in nanoseconds and bytes.
struct StartUp
{
    int64_t ready;     // from the entry of main to readiness
    Memory beforeOpen; // before the database is opened
    Memory populated;  // when the tables are filled
};

struct Answer
{
    char error[256]; // "": none
    Cost cost;
    Memory memory;
    StartUp startUp; // of the service's population
};

// The child's end of the connection; both ends close with their processes.
class Channel
{
  public:
    explicit Channel(int fd) : fd_(fd)
    {
    }

    // Throws std::runtime_error when the other end is gone.
    Request Receive() const;
    void Send(const Answer &answer) const;

  private:
    int fd_;
};

class Side
{
  public:
    // `body` answers requests until it has answered a Stop.
    Side(std::string name, const std::function<int(Channel)> &body);
    ~Side();
    Side(const Side &) = delete;
    Side &operator=(const Side &) = delete;

    // Throws std::runtime_error with the side's name when it failed.
    Answer Ask(Kind kind, const Step &step = {}, int seconds = 0) const;

    // Has it stop, and waits. Throws std::runtime_error when it failed.
    void Stop();

    const std::string &Name() const
    {
        return name_;
    }

  private:
    struct Ends
    {
        Ends();
        int parent;
        int child;
    };

    std::string name_;
    Ends ends_;
    Process process_;
};

// Runs `action` and notes in the answer what it throws.
void Attempt(Answer *pAnswer, const std::function<void()> &action);

} // namespace qdb::bench
