// The commands of the control socket and of scenario files.
//
// To add a command: a function that reads its arguments and fills the reply,
// and a line in kCommands.
#include "standin/commands.h"

#include "standin/calls.h"
#include "standin/config.h"
#include "standin/events.h"
#include "standin/object_commands.h"
#include "standin/state.h"

#include <malloc.h>

#include <algorithm>
#include <iterator>

namespace standin
{
namespace
{

// --- Load and events --------------------------------------------------------

void Generate(const Request &request, json_t *)
{
    Check(GenerateObjects(request.Number<uint32_t>("count"),
                          request.Numbers<uint16_t>("types")));
}

void ChurnObjects(const Request &request, json_t *)
{
    if (request.Has("rate") && !json_is_number(request.Get("rate")))
    {
        Refuse("\"rate\" has to be a number");
    }
    Check(Churn(request.Number<uint32_t>("count", 100),
                json_number_value(request.Get("rate")),
                request.Numbers<uint16_t>("types")));
}

// The events of objects as they are, a record for each or one for all: at a
// rate, and else at once.
void AnnounceMany(const Request &request, json_t *reply)
{
    const auto eventType = request.Number<uint16_t>("event");
    const auto oids = request.Numbers<uint32_t>("oids");
    if (request.IsTrue("together"))
    {
        SetNumber(reply, "begin", SendObjectList(eventType, oids));
        return;
    }
    const auto rate = request.Number<uint32_t>("rate", 0);
    if (rate == 0)
    {
        SetNumber(reply, "begin", SendObjects(eventType, oids));
        return;
    }
    std::vector<int64_t> delivered;
    Check(AnnounceAtRate(eventType, oids, rate, &delivered));
    json_object_set_new(reply, "delivered", NumberArray(delivered));
}

void Event(const Request &request, json_t *)
{
    SendRecord(FromHex(request.Text("hex")));
}

void Wait(const Request &request, json_t *)
{
    const auto timeoutMs = request.Number<int>("timeoutMs");
    if (!WaitDelivered(timeoutMs))
    {
        Refuse("events still wait after %d ms", timeoutMs);
    }
}

// --- Configuration ----------------------------------------------------------

void Config(const Request &request, json_t *reply)
{
    json_object_set_new(reply, "objects",
                        DescribeConfig(request.Text("prefix", "")).release());
}

bool NamesGroup(const Request &request)
{
    return ConfigType(request.Text("interface")) == kGroupType;
}

// Also makes a group, which has nothing that could be changed.
void PutConfig(const Request &request, json_t *)
{
    const std::string key = request.Text("key");
    json_t *values = request.Get("values");
    const auto oid = request.Number<uint32_t>("oid", 0);
    if (!NamesGroup(request))
    {
        Check(PutAttribute(request.Text("interface"), key, values, oid));
        return;
    }
    if (json_object_size(values) != 0)
    {
        Refuse("a group has no columns");
    }
    Check(PutGroup(key, oid));
}

void Remove(const Request &request, json_t *)
{
    const std::string key = request.Text("key");
    Check(NamesGroup(request) ? RemoveGroup(key) : RemoveAttribute(key));
}

void Attributes(const Request &, json_t *reply)
{
    json_t *integers = json_object();
    json_object_set_new(reply, "integers", integers);
    const LockedState state;
    for (const auto &[key, value] : state->integers)
    {
        SetNumber(integers, key.c_str(), value);
    }
}

// --- Faults, delays and costs -----------------------------------------------

void Fault(const Request &request, json_t *)
{
    Check(SetFault(request.Text("call"), request.Number<int>("status"),
                   request.Number<int>("times"),
                   request.Number<int>("skip", 0)));
}

void PutDelay(const Request &request, json_t *)
{
    Delay delay;
    const char *word = json_string_value(request.Get("microseconds"));
    delay.microseconds = word != nullptr && std::string(word) == "hang"
                             ? kHang
                             : request.Number<unsigned>("microseconds");
    delay.random = request.IsTrue("random");
    delay.late = request.IsTrue("late");
    delay.oid = request.Number<uint32_t>("oid", 0);
    delay.skip = request.Number<int>("skip", 0);
    delay.times = request.Number<int>("times", -1);
    delay.text = request.Text("text", "");
    Check(SetDelay(request.Text("call"), delay));
}

// The reply to a question about a platform function.
template <auto kCount>
void Count(const Request &request, json_t *reply)
{
    const std::string call = request.Text("call");
    if (CallIndex(call) == kCallCount)
    {
        Refuse("%s", NoSuchCall(call).c_str());
    }
    SetNumber(reply, "count", kCount(call));
}

void Measure(const Request &request, json_t *)
{
    if (!json_is_boolean(request.Get("on")))
    {
        Refuse("\"on\" has to be true or false");
    }
    MeasureCost(request.IsTrue("on"));
}

void TellCost(const Request &, json_t *reply)
{
    const CallCost cost = Cost();
    SetNumber(reply, "calls", cost.calls);
    SetNumber(reply, "cpuNanoseconds", cost.cpuNanoseconds);
    SetNumber(reply, "clockNanoseconds", cost.clockNanoseconds);
    SetNumber(reply, "ownThreadNanoseconds", cost.ownThreadNanoseconds);
}

void Memory(const Request &, json_t *reply)
{
    const struct mallinfo2 heap = mallinfo2();
    SetNumber(reply, "heap", heap.uordblks + heap.hblkhd);
}

// ----------------------------------------------------------------------------

// Always succeeds itself: each reply tells about its own command.
void Batch(const Request &request, json_t *reply)
{
    if (!json_is_array(request.Get("ops")))
    {
        Refuse("\"ops\" has to be an array");
    }
    json_t *replies = AddArray(reply, "replies");
    for (const json_t *command : request.Elements("ops"))
    {
        json_array_append_new(replies, Execute(command).release());
    }
}

template <auto kAct>
void Just(const Request &, json_t *)
{
    kAct();
}

struct Command
{
    const char *op;
    void (*run)(const Request &request, json_t *reply);
};

// clang-format off
constexpr Command kCommands[] = {
    {"create",     Create},
    {"set",        Set},
    {"delete",     Delete},
    {"status",     Status},
    {"list",       List},
    {"show",       Show},
    {"dump",       Dump},
    {"generate",   Generate},
    {"churn",      ChurnObjects},
    {"detach",     Just<Detach>},
    {"attach",     Just<Attach>},
    {"event",      Event},
    {"announce",   AnnounceMany},
    {"object",     RawObject},
    {"config",     Config},
    {"attribute",  PutConfig},
    {"remove",     Remove},
    {"fault",      Fault},
    {"delay",      PutDelay},
    {"release",    Just<ReleaseDelays>},
    {"calls",      Count<CallCount>},
    {"hanging",    Count<HangingCalls>},
    {"measure",    Measure},
    {"cost",       TellCost},
    {"memory",     Memory},
    {"attributes", Attributes},
    {"wait",       Wait},
    {"reset",      Just<Reset>},
    {"batch",      Batch},
};
// clang-format on

} // namespace

Json Execute(const json_t *request)
{
    try
    {
        const Request arguments(request);
        const std::string op = arguments.Text("op");
        const auto *command = std::ranges::find(kCommands, op, &Command::op);
        if (command == std::end(kCommands))
        {
            Refuse("there is no command \"%s\"", op.c_str());
        }
        Json reply(json_pack("{s:b}", "ok", 1));
        command->run(arguments, reply.get());
        return reply;
    }
    catch (const Refusal &refusal)
    {
        return FailureReply(refusal.reason);
    }
}

Json FailureReply(const Error &error)
{
    // A parser's text may be cut in the middle of a character.
    json_t *text = json_string(error.c_str());
    return Json(json_pack("{s:b,s:o}", "ok", 0, "error",
                          text == nullptr ? json_string("unknown") : text));
}

} // namespace standin
