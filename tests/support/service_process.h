// The real service as a process of its own, with a root of its own.
#pragma once

#include "tests/support/temp_root.h"
#include "tests/support/wait.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace qdb::test
{

struct ServiceOptions
{
    std::string scenario = {};   // JSON text; "": an empty Data Manager
    int logLevel = 6;            // of the lines that go to the log file
    bool database = true;        // make the database before the start
    bool pipe = false;           // make the telemetry pipe
    std::string busAddress = {}; // "": the system bus of this process
    std::vector<std::string> variables = {}; // "NAME=value", before all others
};

class ServiceProcess
{
  public:
    // Prepares the root; Start() runs the service.
    explicit ServiceProcess(ServiceOptions options = {});
    ~ServiceProcess(); // kills it if it still runs
    ServiceProcess(const ServiceProcess &) = delete;
    ServiceProcess &operator=(const ServiceProcess &) = delete;

    void Start();

    const TempRoot &Root() const
    {
        return root_;
    }
    pid_t Pid() const
    {
        return pid_;
    }

    std::string Log() const;
    bool WaitForLog(const std::string &text,
                    int deadlineMs = kDeadlineMs) const;

    // Waits for the readiness attribute to be 1.
    bool WaitReady() const;

    void Signal(int signalNumber) const;

    // The exit status; 128 and the signal when one killed it, -1 when it still
    // runs at the deadline.
    int WaitExit(int deadlineMs = kDeadlineMs);

    // SIGTERM, then WaitExit with the limit that a stop has.
    int Stop();

    // The readiness attribute as the configuration manager holds it; -1: never
    // set.
    int ReadyAttribute() const;

    // Sends one command to the stand-in inside the service and returns its
    // reply, a line of JSON; "" when there is no answer.
    std::string Command(const std::string &json) const;

    // Resident memory in KiB.
    long ResidentKiB() const;

  private:
    std::vector<std::string> Environment() const;

    ServiceOptions options_;
    TempRoot root_;
    pid_t pid_ = -1;
};

// The longest that a stop may take.
inline constexpr int kStopLimitMs = 10000;

} // namespace qdb::test
