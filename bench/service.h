// The service as its users run it: a process of its own, told of objects and
// events through the stand-in's control socket, and looked at from outside.
//
// Whatever program is measured, the stand-in is the bench's own: it is
// preloaded, so that an older service meets the same platform.
#pragma once

#include "bench/process.h"
#include "bench/report.h"
#include "bench/scratch.h"
#include "bench/wait.h"
#include "tools/dmctl/client.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qdb::bench
{

// Processor time so far, in nanoseconds.
struct Usage
{
    int64_t service;
    int64_t answers; // the stand-in's, to calls about objects
    int64_t events;  // the stand-in's own threads, but for the callbacks
};

// Events of one type.
struct Events
{
    uint16_t type;
    std::vector<uint32_t> oids;
    bool together; // one record for all, else one each
};

// All throw std::runtime_error when the service is gone or refuses.
class Service
{
  public:
    // Starts the program; returns when it is about to register its listener,
    // the last thing before it opens the database, and waits there.
    explicit Service(const std::string &program);

    // Lets it go on.
    void Go();

    // Waits until it has published its readiness.
    void AwaitReady();

    // Carries out operations of the control socket; their events aren't sent.
    void Execute(const Json &operations);

    // Sends the events as fast as the listener takes them, and returns at once.
    // Gives the time when the first was let in.
    int64_t Announce(const Events &events);

    // Sends one event after the other when it is due. Gives the times at which
    // the listener was called.
    std::vector<int64_t> AnnounceAtRate(const Events &events, int perSecond);

    // How a platform function's calls behave; microseconds 0: as ever. One call
    // about `oid` hangs until all delays are released.
    void SetDelay(const char *call, int microseconds);
    void Hang(const char *call, uint32_t oid);
    void AwaitHanging(const char *call);
    void ReleaseDelays();

    // Calls of a platform function so far.
    uint64_t Calls(const char *call);

    Usage ReadUsage();

    // With the stand-in's.
    Memory ReadMemory();

    // From the program's start until it waited.
    double StartSeconds() const
    {
        return startSeconds_;
    }

    // Ends it as a shutdown does.
    void End()
    {
        process_.End();
    }

    const Scratch &Files() const
    {
        return scratch_;
    }

  private:
    int Run(const std::string &program) const;
    uint64_t Ask(const Json &request, const char *member);
    int64_t Resident() const;

    Scratch scratch_;
    int64_t begin_ = Now();
    double startSeconds_ = 0;
    Process process_;
    Client client_{scratch_.Root() + "/control"};
};

} // namespace qdb::bench
