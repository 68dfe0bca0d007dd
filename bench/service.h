// The service's whole path inside this process: listener, event queue, ten
// workers, bus service thread, telemetry pipe and database, with the stand-in
// as Data Manager.
#pragma once

#include "bench/scratch.h"
#include "bench/subscriber.h"
#include "bench/workload.h"

#include <cstdint>
#include <span>

namespace qdb::bench
{

// The bus service thread; one for the whole process.
class BusThread
{
  public:
    // Returns when the thread is connected to the system bus. Throws
    // std::runtime_error when it can't be.
    BusThread();
    ~BusThread();
    BusThread(const BusThread &) = delete;
    BusThread &operator=(const BusThread &) = delete;
};

// The other parts, with a database of their own. Needs a BusThread, and the
// words of core/state.h for itself.
class Service
{
  public:
    // The subscriber outlives the service. Throws std::runtime_error when a
    // part can't be made.
    explicit Service(Subscriber &subscriber);
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // Has the stand-in's thread call the listener with one event per OID, as
    // fast as it returns, and measures from the first call to the arrival of
    // the last signal; without signals, to the last worker's end. Throws
    // std::runtime_error unless every event had its signal.
    Outcome Run(Operation operation, std::span<const uint32_t> oids);

  private:
    Subscriber &subscriber_;
    Scratch scratch_;
    PipeDrain drain_;
};

} // namespace qdb::bench
