// The two sides, each with a new database, taken through the same steps.
#pragma once

#include "bench/loop.h"
#include "bench/pipe_reader.h"
#include "bench/report.h"
#include "bench/service.h"
#include "bench/subscriber.h"
#include "bench/workload.h"

#include <string>
#include <vector>

namespace qdb::bench
{

// All throw std::runtime_error when something fails, or when a side did not do
// what it should have done.
class Pair
{
  public:
    // Starts the program as the service.
    Pair(const std::string &program, Subscribers &subscribers);

    // The first step: fills both, with that many objects of all types, and
    // waits until the service is ready.
    Slice Populate(uint32_t objects, StartUp *pStartUp);

    // Prepares and runs the step on both, or on the service alone. The value
    // of the step is one that no step before it had.
    Slice Run(Step step);
    Sample RunService(Step step);

    // One pass over the set, one change after the other at that rate. Adds how
    // long each took from the call of the listener to the first subscriber, in
    // microseconds.
    void TimeChanges(Step step, int perSecond, std::vector<double> *pTimes);

    // Compares the rows; that many objects are to have one.
    void CheckRows(uint64_t objects) const;

    // Waits until everything that was deferred has been done, and ends the
    // service.
    void End()
    {
        subscribers_.Begin();
        service.End();
    }

    // Signals of the service so far.
    uint64_t Changes() const
    {
        return changes_;
    }

    Service service;

  private:
    Sample RunLoop(const Step &step, const Json &operations);
    Sample RunService(const Step &step, const Json &operations);

    Subscribers &subscribers_;
    PipeReader pipe_;
    Loop loop_;
    uint32_t value_;
    uint64_t changes_ = 0;
};

} // namespace qdb::bench
