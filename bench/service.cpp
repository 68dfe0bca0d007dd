#include "bench/service.h"

#include "core/ready.h"
#include "platform/standin/standin.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>

namespace qdb::bench
{
namespace
{

constexpr char kHeldCall[] = "ZOILAddEventListener";

std::string StandinPath()
{
    Dl_info info = {};
    if (dladdr(reinterpret_cast<const void *>(&standin::ObjectIds), &info) == 0)
    {
        throw std::runtime_error("where is the stand-in?");
    }
    return info.dli_fname;
}

Json About(const char *operation, const char *call)
{
    Json request = Operation(operation);
    Put(request, "call", Text(call));
    return request;
}

Json AnnounceRequest(const Events &events)
{
    Json request = Operation("announce");
    Put(request, "event", Number(events.type));
    Json oids(json_array());
    for (const uint32_t oid : events.oids)
    {
        Append(oids, Number(oid));
    }
    Put(request, "oids", std::move(oids));
    Put(request, "together", Json(json_boolean(events.together)));
    return request;
}

bool Answers(const std::string &socket)
{
    try
    {
        Client(socket).Call(Operation("cost"));
        return true;
    }
    catch (const NoConnection &)
    {
        return false;
    }
}

int64_t ProcessorTime(pid_t process)
{
    clockid_t clock = 0;
    timespec time = {};
    if (clock_getcpuclockid(process, &clock) != 0 ||
        clock_gettime(clock, &time) != 0)
    {
        throw std::runtime_error("the service has no clock");
    }
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

} // namespace

Service::Service(const std::string &program)
    : process_(
          [&]
          {
              return Run(program);
          })
{
    Await("the control socket",
          [this]
          {
              return Answers(scratch_.Root() + "/control");
          });
    AwaitHanging(kHeldCall);
    startSeconds_ = static_cast<double>(Now() - begin_) / 1e9;
    const Json measure = Operation("measure");
    Put(measure, "on", Json(json_true()));
    client_.Call(measure);
}

// In the child.
int Service::Run(const std::string &program) const
{
    const std::string &root = scratch_.Root();
    const std::string scenario = root + "/scenario.json";
    std::ofstream(scenario) << R"({"delays": [{"call": ")" << kHeldCall
                            << R"(", "microseconds": "hang"}]})";
    setenv("LD_PRELOAD", StandinPath().c_str(), 1);
    setenv("QDB_TEST_ROOT", root.c_str(), 1);
    setenv("QDB_STANDIN_SCENARIO", scenario.c_str(), 1);
    setenv("QDB_STANDIN_SOCKET", (root + "/control").c_str(), 1);
    setenv("QDB_STANDIN_LOG", "0", 1);
    unsetenv("QDB_STANDIN_STATE");
    execl(program.c_str(), program.c_str(), nullptr);
    throw std::runtime_error("can't run " + program);
}

void Service::Go()
{
    ReleaseDelays();
}

void Service::AwaitReady()
{
    Await("readiness",
          [this]
          {
              const Json reply = client_.Call(Operation("attributes"));
              return NumberOf(json_object_get(reply.get(), "integers"),
                              kReadyKey) == 1;
          });
}

// In portions, since the stand-in refuses long lines.
void Service::Execute(const Json &operations)
{
    constexpr size_t kPortion = 200;
    const size_t count = json_array_size(operations.get());
    for (size_t first = 0; first < count; first += kPortion)
    {
        const Json portion(json_array());
        for (size_t i = first; i < std::min(first + kPortion, count); ++i)
        {
            Append(portion, Share(json_array_get(operations.get(), i)));
        }
        const Json replies = client_.CallBatch(portion);
        for (size_t i = 0; i < json_array_size(replies.get()); ++i)
        {
            const json_t *reply = json_array_get(replies.get(), i);
            if (!Succeeded(reply))
            {
                throw std::runtime_error("the stand-in refused: " +
                                         ErrorOf(reply));
            }
        }
    }
}

uint64_t Service::Ask(const Json &request, const char *member)
{
    const Json reply = client_.Call(request);
    return NumberOf(reply.get(), member);
}

int64_t Service::Announce(const Events &events)
{
    return static_cast<int64_t>(Ask(AnnounceRequest(events), "begin"));
}

std::vector<int64_t> Service::AnnounceAtRate(const Events &events,
                                             int perSecond)
{
    const Json request = AnnounceRequest(events);
    Put(request, "rate", Json(json_integer(perSecond)));
    const Json reply = client_.Call(request);
    const json_t *delivered = json_object_get(reply.get(), "delivered");
    std::vector<int64_t> times;
    for (size_t i = 0; i < json_array_size(delivered); ++i)
    {
        times.push_back(json_integer_value(json_array_get(delivered, i)));
    }
    if (times.size() != events.oids.size())
    {
        throw std::runtime_error("an event was not delivered");
    }
    return times;
}

void Service::SetDelay(const char *call, int microseconds)
{
    const Json request = About("delay", call);
    Put(request, "microseconds", Json(json_integer(microseconds)));
    client_.Call(request);
}

void Service::Hang(const char *call, uint32_t oid)
{
    const Json request = About("delay", call);
    Put(request, "microseconds", Text("hang"));
    Put(request, "oid", Number(oid));
    client_.Call(request);
}

void Service::AwaitHanging(const char *call)
{
    Await("a call that hangs",
          [&]
          {
              return Ask(About("hanging", call), "count") > 0;
          });
}

void Service::ReleaseDelays()
{
    client_.Call(Operation("release"));
}

uint64_t Service::Calls(const char *call)
{
    return Ask(About("calls", call), "count");
}

Usage Service::ReadUsage()
{
    const Json reply = client_.Call(Operation("cost"));
    const auto part = [&](const char *name)
    {
        return static_cast<int64_t>(NumberOf(reply.get(), name));
    };
    Usage usage = {};
    usage.answers = part("cpuNanoseconds") + part("clockNanoseconds");
    usage.events = part("ownThreadNanoseconds");
    usage.service = ProcessorTime(process_.Id()) - usage.answers - usage.events;
    return usage;
}

Memory Service::ReadMemory()
{
    return {static_cast<int64_t>(Ask(Operation("memory"), "heap")), Resident()};
}

int64_t Service::Resident() const
{
    std::ifstream statm("/proc/" + std::to_string(process_.Id()) + "/statm");
    int64_t size = 0;
    int64_t pages = 0;
    if (!(statm >> size >> pages))
    {
        throw std::runtime_error("the service has no memory");
    }
    return pages * sysconf(_SC_PAGESIZE);
}

} // namespace qdb::bench
