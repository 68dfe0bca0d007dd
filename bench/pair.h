// The two sides, each with a new database, taken through the same steps.
#pragma once

#include "bench/counter.h"
#include "bench/loop.h"
#include "bench/report.h"
#include "bench/service.h"
#include "bench/workload.h"

#include <string>
#include <vector>

namespace qdb::bench
{

// How the service came up.
struct StartUp
{
    double ready;      // seconds from its start to readiness
    Memory beforeOpen; // before the database is opened
    Memory populated;  // when it is ready
};

// What lies between two readings.
Sample SampleOf(int64_t elapsed, const Usage &before, const Usage &after);

// All throw std::runtime_error when something fails, or when a side did not do
// what it should have done.
class Pair
{
  public:
    // Starts the program as the service.
    Pair(const std::string &program, Subscribers &subscribers);

    // The first step: fills both, with that many objects of all types, and
    // waits until the service is ready.
    Slice Populate(uint32_t objects);

    // Prepares and runs the step on both. The step's value becomes one that no
    // step before it had.
    Slice Run(Step step);

    // The service's changes one after the other when each is due. Adds how long
    // each took from the call of the listener to the first subscriber, in
    // microseconds.
    void TimeChanges(Step step, int perSecond, std::vector<double> *pTimes);

    // Compares the rows; that many objects are to have one.
    void CheckRows(uint64_t objects) const;

    // Ends the service.
    void End();

    // Signals of the service so far.
    uint64_t Changes() const
    {
        return changes_;
    }

    const StartUp &Start() const
    {
        return start_;
    }

    Service service;

  private:
    void BeginCounting(bool keepsArrivals = false);
    int64_t EndCounting(uint64_t signals);
    Sample RunService(const Step &step, const Json &operations);
    Sample RunLoop(const Step &step, const Json &operations);

    Subscribers &subscribers_;
    Counter pipe_;
    Loop loop_;
    uint32_t value_ = 30000;
    uint64_t changes_ = 0;
    StartUp start_ = {};
};

} // namespace qdb::bench
