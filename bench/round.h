// One round of the measuring: the three sides, each with a new database.
#pragma once

#include "bench/report.h"
#include "bench/scratch.h"
#include "bench/service.h"
#include "bench/side.h"
#include "bench/subscriber.h"
#include "bench/workload.h"

#include <functional>
#include <vector>

namespace qdb::bench
{

// Objects of a set at most.
inline constexpr uint32_t kSetSize = 5000;

// The load average of the last minute.
double LoadAverage();

// One side with the files that it works on, which outlive it.
struct Station
{
    Station(const char *name,
            const std::function<int(Channel, const Scratch &)> &body)
        : side(name,
               [&](Channel channel)
               {
                   return body(channel, scratch);
               })
    {
    }

    Scratch scratch;
    Side side;
};

// What a side did in a step, to be compared with what another did.
struct Work
{
    uint64_t signals; // digest of their texts
    int64_t rowsWritten;
};

// Adds what it finds to the report. All throw std::runtime_error when something
// fails, or when a side did not do what the others did.
class Round
{
  public:
    Round(const Settings &settings, Subscribers &subscribers, Report &report);

    // All workloads, with what lies between them; the sets are gone again at
    // the end.
    void RunWorkloads(uint32_t refreshes, uint64_t changes);

    // The service alone.
    void MeasureMemory();
    void MeasureLatency(int runs);
    void MeasureIdle(int seconds);

    void Stop();

  private:
    // Prepares and runs the step on all sides.
    Slice RunOnAll(Step step);
    Sample RunOn(Side &side, const Step &step, Work *pWork = nullptr);
    void Measure(WorkloadIndex workload, Step step);
    void Refresh(WorkloadIndex workload, Operation operation, Set set,
                 uint32_t refreshes);
    void ChangeService(uint64_t changes);
    void CheckRows(uint64_t objects) const;
    Cost TimeChanges(std::vector<double> *pMicroseconds);

    Station &StationOf(size_t side)
    {
        return side == kService ? service_ : side == kPlain ? plain_ : best_;
    }

    const Settings &settings_;
    Subscribers &subscribers_;
    Report &report_;
    const uint32_t setSize_;
    uint32_t value_;       // of the last step
    uint64_t changes_ = 0; // signals of the service so far

    Shared<EventTimes> times_;
    Station service_;
    PipeReader pipe_;
    Station plain_;
    Station best_;
};

} // namespace qdb::bench
