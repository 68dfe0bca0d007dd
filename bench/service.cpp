#include "bench/service.h"

#include "core/ready.h"
#include "standin/standin.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
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

int64_t Member(const Json &reply, const char *name)
{
    return json_integer_value(json_object_get(reply.get(), name));
}

} // namespace

Service::Service(const std::string &program)
    : process_(
          [&]
          {
              return Run(program);
          })
{
    AwaitServer(scratch.root / "control");
    AwaitHanging(kHeldCall);
    Ask(json_pack("{s:s, s:b}", "op", "measure", "on", 1));
}

// In the child.
int Service::Run(const std::string &program) const
{
    const std::string scenario = scratch.root / "scenario.json";
    std::ofstream(scenario) << R"({"delays": [{"call": ")" << kHeldCall
                            << R"(", "microseconds": "hang"}]})";
    setenv("LD_PRELOAD", StandinPath().c_str(), 1);
    setenv("QDB_TEST_ROOT", scratch.root.Path().c_str(), 1);
    setenv("QDB_STANDIN_SCENARIO", scenario.c_str(), 1);
    setenv("QDB_STANDIN_SOCKET", (scratch.root / "control").c_str(), 1);
    setenv("QDB_STANDIN_LOG", "0", 1);
    unsetenv("QDB_STANDIN_STATE");
    execl(program.c_str(), program.c_str(), nullptr);
    throw std::runtime_error("can't run " + program);
}

Json Service::Ask(json_t *request)
{
    return client_.Call(Json(request));
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
                throw std::runtime_error(ErrorOf(reply));
            }
        }
    }
}

void Service::AwaitHanging(const char *call)
{
    const auto hangs = [&]
    {
        const Json reply =
            Ask(json_pack("{s:s, s:s}", "op", "hanging", "call", call));
        return Member(reply, "count") > 0;
    };
    Await("a call that hangs", hangs);
}

void Service::AwaitReady()
{
    const auto isReady = [this]
    {
        const Json reply = client_.Call(Operation("attributes"));
        const json_t *integers = json_object_get(reply.get(), "integers");
        return NumberOf(integers, kReadyKey) == 1;
    };
    Await("readiness", isReady);
}

Usage Service::ReadUsage()
{
    const Json reply = client_.Call(Operation("cost"));
    Usage usage = {};
    usage.answers =
        Member(reply, "cpuNanoseconds") + Member(reply, "clockNanoseconds");
    usage.events = Member(reply, "ownThreadNanoseconds");
    usage.service = ProcessorTime(process_.Id()) - usage.answers - usage.events;
    return usage;
}

Memory Service::ReadMemory()
{
    int64_t size = 0;
    int64_t pages = 0;
    std::ifstream file("/proc/" + std::to_string(process_.Id()) + "/statm");
    if (!(file >> size >> pages))
    {
        throw std::runtime_error("the service has no memory");
    }
    return {Member(client_.Call(Operation("memory")), "heap"),
            pages * sysconf(_SC_PAGESIZE)};
}

} // namespace qdb::bench
