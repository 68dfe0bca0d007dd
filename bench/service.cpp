#include "bench/service.h"

#include "bench/meter.h"
#include "bench/statements.h"
#include "core/lifecycle.h"
#include "core/paths.h"
#include "core/state.h"
#include "core/threads.h"
#include "events/listener.h"
#include "events/queues/event_record.h"
#include "platform/standin/standin.h"
#include "publish/bus_connection.h"
#include "publish/change_signal.h"
#include "tests/support/wait.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace qdb::bench
{
namespace
{

// The longest that the events of one request may take.
constexpr int kLimitMs = 300000;

// Passes of the NC thread until it has seen all objects and found its caches
// filled.
constexpr int kSettlingPasses = 2;

EventType EventOf(Operation operation)
{
    switch (operation)
    {
    case Operation::Populate:
    case Operation::Create:
        return DATA_EVENT_DATA_OBJ_CREATE;
    case Operation::RefreshChanged:
    case Operation::RefreshSame:
        return DATA_EVENT_DATA_OBJ_DIRTY_LIST;
    case Operation::Delete:
    case Operation::DestroyBunch:
        break;
    }
    return DATA_EVENT_DATA_OBJ_DESTROY;
}

template <typename Condition>
void Await(const char *what, Condition condition)
{
    if (!test::WaitUntil(condition, kLimitMs))
    {
        throw std::runtime_error(std::string("waited in vain for ") + what);
    }
}

// All that the records led to is done when this returns; signals may still be
// under way.
void AwaitRecords(uint64_t records)
{
    Await("the workers",
          [=]
          {
              return RecordsDone() >= records;
          });
    if (!standin::WaitDelivered(kLimitMs))
    {
        throw std::runtime_error("the listener didn't return");
    }
}

// Lets the events of a step pile up before the listener, and then in. The bunch
// is one event, which the listener itself works off.
void SendEvents(const Step &step, const std::vector<uint32_t> &oids)
{
    ZOILRemoveEventListener(QDVEventListener);
    if (step.operation == Operation::DestroyBunch)
    {
        standin::SendObjectList(EventOf(step.operation), oids);
    }
    else
    {
        for (const uint32_t &oid : oids)
        {
            standin::SendObjectList(EventOf(step.operation), {&oid, 1});
        }
    }
    if (ZOILAddEventListener(QDVEventListener) != 0)
    {
        throw std::runtime_error("the stand-in refused the listener");
    }
}

void SetSpent(const Reading &before, Cost *pCost)
{
    const Reading after = ReadMeter();
    pCost->processor = after.service - before.service;
    pCost->eventThread = after.eventThread - before.eventThread;
    pCost->store = after.store - before.store;
}

Cost RunStep(const Step &step)
{
    const std::vector<uint32_t> oids = OidsOf(step);
    const bool isBunch = step.operation == Operation::DestroyBunch;
    const uint64_t records = RecordsDone() + (isBunch ? 0 : oids.size());
    int64_t first = 0;
    Cost cost = {};
    NoteEvents({&first, 1});
    const int64_t written = RowsWritten();
    const Reading before = ReadMeter();
    SendEvents(step, oids);
    AwaitRecords(records);
    SetSpent(before, &cost);
    cost.rowsWritten = RowsWritten() - written;
    NoteEvents({});
    cost.begin = first;
    cost.end = LastRecordDone();
    ChangeJsonAdded(kFence);
    return cost;
}

// One object after the other, each changed and announced when it is due.
Cost RunChanges(const Step &step, EventTimes *pTimes)
{
    const std::vector<uint32_t> oids = OidsOf(step);
    const uint64_t records = RecordsDone() + oids.size();
    Cost cost = {};
    PrepareObjects(step);
    NoteEvents({pTimes->times, oids.size()});
    const Reading before = ReadMeter();
    const Clock::time_point begin = Clock::now();
    for (size_t i = 0; i < oids.size(); ++i)
    {
        std::this_thread::sleep_until(
            begin + std::chrono::microseconds(1000000 * i / kChangesPerSecond));
        standin::SendObjectList(EventOf(step.operation), {&oids[i], 1});
    }
    AwaitRecords(records);
    SetSpent(before, &cost);
    ChangeJsonAdded(kFence);
    return cost;
}

// Drives the service from a thread that isn't its own.
class Driver
{
  public:
    Driver(const Channel &channel, EventTimes *pTimes)
        : channel_(channel), pTimes_(pTimes)
    {
        if (CreateThread(&thread_, nullptr, Run, this) != 0)
        {
            throw std::runtime_error("no thread for the driver");
        }
    }
    ~Driver()
    {
        pthread_join(thread_, nullptr);
    }
    Driver(const Driver &) = delete;
    Driver &operator=(const Driver &) = delete;

  private:
    // Without the bench there is nothing to close in order for.
    static void *Run(void *driver)
    {
        try
        {
            static_cast<Driver *>(driver)->AnswerAll();
        }
        catch (const std::exception &)
        {
            _exit(1);
        }
        return nullptr;
    }

    void AnswerAll()
    {
        LeaveThreadOut();
        channel_.Send(AwaitStart());
        for (Kind kind = Kind::Run; kind != Kind::Stop;)
        {
            const Request request = channel_.Receive();
            kind = request.kind;
            Answer answer = {};
            Attempt(&answer,
                    [&]
                    {
                        Act(request, &answer);
                    });
            channel_.Send(answer);
        }
    }

    Answer AwaitStart() const
    {
        Answer answer = {};
        Attempt(&answer,
                [&]
                {
                    Await("readiness",
                          []
                          {
                              return IsReady() && DbusEventsEnabled == 1 &&
                                     gBusConnection != nullptr;
                          });
                    answer.cost = PopulationCost();
                    answer.startUp = ReadStartUp(begin_);
                });
        return answer;
    }

    void Act(const Request &request, Answer *pAnswer)
    {
        switch (request.kind)
        {
        case Kind::Prepare:
            PrepareObjects(request.step);
            break;
        case Kind::Run:
            pAnswer->cost = RunStep(request.step);
            break;
        case Kind::Changes:
            pAnswer->cost = RunChanges(request.step, pTimes_);
            break;
        case Kind::Reconcile:
            Reconcile();
            break;
        case Kind::Idle:
            pAnswer->cost = Idle(request.seconds);
            break;
        case Kind::Memory:
            TrimMemory();
            pAnswer->memory = ReadMemory();
            break;
        case Kind::Stop:
            Release();
            kill(getpid(), SIGTERM);
            break;
        }
    }

    static Cost Idle(int seconds)
    {
        Cost cost = {};
        const Reading before = ReadMeter();
        cost.begin = Clock::now().time_since_epoch().count();
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        cost.end = Clock::now().time_since_epoch().count();
        SetSpent(before, &cost);
        return cost;
    }

    void Reconcile()
    {
        Release();
        Await("the NC thread",
              []
              {
                  return NCPasses() >= kSettlingPasses;
              });
        ChangeJsonAdded(kFence);
    }

    void Release()
    {
        if (!released_)
        {
            released_ = true;
            LetNCThreadGo();
        }
    }

    const Channel &channel_;
    EventTimes *pTimes_;
    int64_t begin_ = Clock::now().time_since_epoch().count();
    bool released_ = false;
    pthread_t thread_ = {};
};

} // namespace

int RunServiceSide(const Channel &channel, const Scratch &scratch,
                   EventTimes *pTimes)
{
    gRuntimeRoot = scratch.Root().c_str();
    standin::SetLog(0, nullptr);
    const Request prepare = channel.Receive();
    Answer answer = {};
    Attempt(&answer,
            [&]
            {
                PrepareObjects(prepare.step);
            });
    channel.Send(answer);
    channel.Receive(); // Run
    const Driver driver(channel, pTimes);
    return RunService();
}

} // namespace qdb::bench
