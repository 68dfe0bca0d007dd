// The real service as a process of its own, with a root of its own.
#pragma once

#include "tests/support/child.h"
#include "tests/support/temp_root.h"
#include "tests/support/wait.h"

#include <functional>
#include <string>
#include <vector>

namespace qdb::test
{

// A scenario: a server of `count` memory modules, from OID 4096 on, and as many
// probes, from 65536 on. `more` stands before the list of objects, or in it.
std::string Server(int count, const std::string &more = "",
                   const std::string &objects = "");

struct ServiceOptions
{
    std::string scenario = {};   // JSON text; "": an empty Data Manager
    int logLevel = 6;            // of the lines that go to the log file
    bool database = true;        // make the database before the start
    bool pipe = false;           // make the telemetry pipe
    std::string busAddress = {}; // "": the system bus of this process
    std::vector<std::string> variables = {}; // "NAME=value", in place of others
};

class ServiceProcess : public Child
{
  public:
    // Prepares the root; Start() runs the service.
    explicit ServiceProcess(ServiceOptions options = {});
    ~ServiceProcess(); // kills it if it still runs

    void Start();

    const TempRoot &Root() const
    {
        return root_;
    }
    std::string Log() const;
    bool WaitForLog(const std::string &text) const;

    // Waits for the readiness attribute to be 1.
    bool WaitReady() const;

    // SIGTERM, then WaitExit with the limit that a stop has.
    int Stop();

    // The readiness attribute as the configuration manager holds it; -1: never
    // set.
    int ReadyAttribute() const;

    // Sends one command to the stand-in inside the service and returns its
    // reply, a line of JSON; "" when there is no answer.
    std::string Command(const std::string &json) const;

    // Gives the first memory module another speed.
    void SetSpeed(int speed) const;
    bool WaitForSpeed(int speed) const; // in its row

  private:
    ServiceOptions options_;
    TempRoot root_;
};

// The longest that a stop may take.
inline constexpr int kStopLimitMs = 10000;

using Happening = std::function<void(ServiceProcess &)>;

// A service's life: what it begins with, what happens to it up to what ends it,
// and its end.
struct Life
{
    std::string name;
    ServiceOptions options;
    Happening happening;
    std::vector<std::string> lines; // in the log, in this order
    int status = 0;
    int attribute = 0;                                // of readiness
    std::function<void(const TempRoot &)> begin = {}; // before the start
};

// Lives them side by side, since many have their seconds to wait.
void Live(const std::vector<Life> &lives);

// Ready, a change reaches its row, and SIGTERM.
void Serve(ServiceProcess &service);

// As ServiceProcess::Command, at a control socket: for a thread that may
// outlive the process.
std::string CommandAt(const std::string &path, const std::string &json);

} // namespace qdb::test
