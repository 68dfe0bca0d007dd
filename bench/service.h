// The service as its users run it: a process of its own, told of objects and
// events through the stand-in's control socket, and looked at from outside.
//
// Whatever program is measured, the stand-in is the bench's own: it is
// preloaded, so that an older service meets the same platform.
#pragma once

#include "bench/scratch.h"
#include "tools/dmctl/client.h"

#include <cstdint>
#include <string>

namespace qdb::bench
{

// Processor time so far, in nanoseconds.
struct Usage
{
    int64_t service;
    int64_t answers; // the stand-in's, to calls about objects
    int64_t events;  // the stand-in's own threads, but for the callbacks
};

// Bytes in use in the heap, and resident.
struct Memory
{
    int64_t heap;
    int64_t resident;
};

// All throw std::runtime_error when the service is gone or refuses.
class Service
{
  public:
    // Starts the program; returns when it is about to register its listener,
    // the last thing before it opens the database, and waits there until all
    // delays are released.
    explicit Service(const std::string &program);

    // Sends a request to the control socket. Takes it over; gives the reply.
    Json Ask(json_t *request);

    // Carries out operations of the control socket.
    void Execute(const Json &operations);

    // Waits until a call of the platform function hangs.
    void AwaitHanging(const char *call);

    // Waits until it has published its readiness.
    void AwaitReady();

    Usage ReadUsage();

    // With the stand-in's.
    Memory ReadMemory();

    // Ends it as a shutdown does.
    void End()
    {
        process_.End();
    }

    const Scratch scratch;
    const int64_t begin = Now();

  private:
    int Run(const std::string &program) const;

    Process process_;
    Client client_{scratch.root / "control"};
};

} // namespace qdb::bench
