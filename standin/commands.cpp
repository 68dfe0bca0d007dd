// The commands of the control socket and of scenario files.
//
// To add a command: a function that reads its arguments and fills the reply,
// and a line in kCommands.
#include "standin/commands.h"

#include "standin/calls.h"
#include "standin/config.h"
#include "standin/events.h"
#include "standin/state.h"
#include "standin/store.h"

#include <malloc.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace standin
{
namespace
{

// The members of a command's request. Each refuses one of the wrong kind; those
// without a value to fall back on refuse a missing one, too.

bool Has(const json_t *request, const char *name)
{
    const json_t *value = json_object_get(request, name);
    return value != nullptr && !json_is_null(value);
}

template <typename T>
T NumberOf(const json_t *value, const char *name)
{
    const auto number = [value]
    {
        if constexpr (std::is_signed_v<T>)
        {
            return SignedOf(value);
        }
        else
        {
            return UnsignedOf(value);
        }
    }();
    if (!number || !std::in_range<T>(*number))
    {
        Refuse("\"%s\" has to be an integer of %zu bits", name, sizeof(T) * 8);
    }
    return static_cast<T>(*number);
}

template <typename T>
T Number(const json_t *request, const char *name)
{
    return NumberOf<T>(json_object_get(request, name), name);
}

template <typename T>
T Number(const json_t *request, const char *name, T otherwise)
{
    return Has(request, name) ? Number<T>(request, name) : otherwise;
}

template <typename T>
std::vector<T> Numbers(const json_t *request, const char *name)
{
    const json_t *list = json_object_get(request, name);
    if (Has(request, name) && !json_is_array(list))
    {
        Refuse("\"%s\" has to be an array", name);
    }
    std::vector<T> numbers;
    for (size_t i = 0; i < json_array_size(list); ++i)
    {
        numbers.push_back(NumberOf<T>(json_array_get(list, i), name));
    }
    return numbers;
}

std::string Text(const json_t *request, const char *name)
{
    const char *text = json_string_value(json_object_get(request, name));
    if (text == nullptr)
    {
        Refuse("\"%s\" has to be a text", name);
    }
    return text;
}

bool Announce(const json_t *request)
{
    return !json_is_false(json_object_get(request, "announce"));
}

// A parent is an OID, or an object by its key: {"key": ...}.
uint32_t ParentOf(const json_t *parent)
{
    const char *key = json_string_value(json_object_get(parent, "key"));
    if (key == nullptr)
    {
        return NumberOf<uint32_t>(parent, "parents");
    }
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    const auto found = std::ranges::find_if(state.objects,
                                            [key](const auto &item)
                                            {
                                                return item.second.key == key;
                                            });
    if (found == state.objects.end())
    {
        Refuse("no object has the key \"%s\"", key);
    }
    return found->first;
}

std::vector<uint32_t> Parents(const json_t *request)
{
    const json_t *list = json_object_get(request, "parents");
    if (Has(request, "parents") && !json_is_array(list))
    {
        Refuse("\"parents\" has to be an array");
    }
    std::vector<uint32_t> oids;
    for (size_t i = 0; i < json_array_size(list); ++i)
    {
        oids.push_back(ParentOf(json_array_get(list, i)));
    }
    return oids;
}

void Check(const Error &error)
{
    if (!error.empty())
    {
        Refuse("%s", error.c_str());
    }
}

uint32_t CreateOne(const json_t *request, bool announce)
{
    ObjectSpec spec;
    spec.type = Number<uint16_t>(request, "type");
    spec.oid = Number<uint32_t>(request, "oid", 0);
    spec.parents = Parents(request);
    spec.values = json_object_get(request, "values");
    spec.key = Has(request, "key") ? Text(request, "key") : "";
    uint32_t oid = 0;
    Check(CreateObject(spec, announce, &oid));
    return oid;
}

void Create(const json_t *request, json_t *reply)
{
    const uint32_t oid = CreateOne(request, Announce(request));
    json_object_set_new(reply, "oid", json_integer(oid));
}

void Set(const json_t *request, json_t *)
{
    Check(SetObject(Number<uint32_t>(request, "oid"),
                    json_object_get(request, "values"), Announce(request)));
}

void Delete(const json_t *request, json_t *)
{
    Check(DeleteObjects(Numbers<uint32_t>(request, "oids"), Announce(request)));
}

void Status(const json_t *request, json_t *)
{
    Check(SetStatus(Number<uint32_t>(request, "oid"),
                    Number<uint8_t>(request, "status")));
}

void List(const json_t *request, json_t *reply)
{
    std::vector<uint16_t> types;
    if (Has(request, "type"))
    {
        types.push_back(Number<uint16_t>(request, "type"));
    }
    json_t *objects = json_array();
    json_object_set_new(reply, "objects", objects);
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    for (const auto &[oid, object] : state.objects)
    {
        if (types.empty() || types[0] == object.type)
        {
            json_array_append_new(objects, json_pack("{s:I,s:i,s:s}", "oid",
                                                     json_int_t{oid}, "type",
                                                     int{object.type}, "key",
                                                     object.key.c_str()));
        }
    }
}

json_t *OidArray(const std::vector<uint32_t> &oids)
{
    json_t *array = json_array();
    for (const uint32_t oid : oids)
    {
        json_array_append_new(array, json_integer(oid));
    }
    return array;
}

void Show(const json_t *request, json_t *reply)
{
    const auto oid = Number<uint32_t>(request, "oid");
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    const auto found = state.objects.find(oid);
    if (found == state.objects.end())
    {
        Refuse("there is no object 0x%X", oid);
    }
    const Object &object = found->second;
    json_object_update_new(
        reply, json_pack("{s:I,s:i,s:i,s:s,s:o,s:o*,s:s}", "oid",
                         json_int_t{oid}, "type", int{object.type}, "status",
                         int{ObjectStatus(object)}, "key", object.key.c_str(),
                         "parents", OidArray(object.parents), "values",
                         json_deep_copy(object.values.get()), "hex",
                         ToHex(object.bytes).c_str()));
}

json_t *DumpOf(uint32_t oid, uint16_t type, const std::string &key,
               const std::vector<uint32_t> &parents,
               const std::vector<uint8_t> &bytes)
{
    return json_pack("{s:I,s:i,s:s,s:o,s:s}", "oid", json_int_t{oid}, "type",
                     int{type}, "key", key.c_str(), "parents",
                     OidArray(parents), "hex", ToHex(bytes).c_str());
}

// Everything that a mirror of both managers is to hold, at one moment: objects,
// none while the Data Manager isn't ready, and attributes with their groups.
void Dump(const json_t *, json_t *reply)
{
    json_t *objects = json_array();
    json_object_set_new(reply, "objects", objects);
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    if (state.ready)
    {
        for (const auto &[oid, object] : state.objects)
        {
            json_array_append_new(objects,
                                  DumpOf(oid, object.type, object.key,
                                         object.parents, object.bytes));
        }
    }
    for (const auto &[key, attribute] : state.attributes)
    {
        json_t *dump =
            DumpOf(attribute.oid, attribute.type, key, {}, attribute.bytes);
        const std::string group = key.substr(0, key.find_last_of('#'));
        json_object_set_new(dump, "group", json_string(group.c_str()));
        json_array_append_new(objects, dump);
    }
}

void Generate(const json_t *request, json_t *)
{
    Check(GenerateObjects(Number<uint32_t>(request, "count"),
                          Numbers<uint16_t>(request, "types")));
}

void ChurnObjects(const json_t *request, json_t *)
{
    const json_t *rate = json_object_get(request, "rate");
    if (Has(request, "rate") && !json_is_number(rate))
    {
        Refuse("\"rate\" has to be a number");
    }
    Check(Churn(Number<uint32_t>(request, "count", 100),
                json_number_value(rate), Numbers<uint16_t>(request, "types")));
}

// The events of objects as they are, a record for each or one for all: at a
// rate, and else at once.
void AnnounceMany(const json_t *request, json_t *reply)
{
    const auto eventType = Number<uint16_t>(request, "event");
    const auto oids = Numbers<uint32_t>(request, "oids");
    if (json_is_true(json_object_get(request, "together")))
    {
        json_object_set_new(reply, "begin",
                            json_integer(QueueObjectList(eventType, oids)));
        return;
    }
    const auto rate = Number<uint32_t>(request, "rate", 0);
    if (rate == 0)
    {
        json_object_set_new(reply, "begin",
                            json_integer(QueueObjects(eventType, oids)));
        return;
    }
    std::vector<int64_t> delivered;
    Check(AnnounceAtRate(eventType, oids, rate, &delivered));
    json_t *times = json_array();
    json_object_set_new(reply, "delivered", times);
    for (const int64_t time : delivered)
    {
        json_array_append_new(times, json_integer(time));
    }
}

void Memory(json_t *reply)
{
    const struct mallinfo2 heap = mallinfo2();
    json_object_set_new(
        reply, "heap",
        json_integer(static_cast<json_int_t>(heap.uordblks + heap.hblkhd)));
}

void Event(const json_t *request, json_t *)
{
    SendRecord(FromHex(Text(request, "hex")));
}

void RawObject(const json_t *request, json_t *)
{
    Check(PutRawObject(FromHex(Text(request, "hex")), Parents(request)));
}

void Config(const json_t *request, json_t *reply)
{
    const std::string prefix =
        Has(request, "prefix") ? Text(request, "prefix") : "";
    json_object_set_new(reply, "objects", DescribeConfig(prefix).release());
}

bool NamesGroup(const json_t *request)
{
    return ConfigType(Text(request, "interface")) == kGroupType;
}

// Also makes a group, which has nothing that could be changed.
void PutOneAttribute(const json_t *request)
{
    const std::string key = Text(request, "key");
    json_t *values = json_object_get(request, "values");
    const auto oid = Number<uint32_t>(request, "oid", 0);
    if (!NamesGroup(request))
    {
        Check(PutAttribute(Text(request, "interface"), key, values, oid));
        return;
    }
    if (json_object_size(values) != 0)
    {
        Refuse("a group has no columns");
    }
    Check(PutGroup(key, oid));
}

void Remove(const json_t *request, json_t *)
{
    const std::string key = Text(request, "key");
    Check(NamesGroup(request) ? RemoveGroup(key) : RemoveAttribute(key));
}

void Fault(const json_t *request, json_t *)
{
    Check(SetFault(Text(request, "call"), Number<int>(request, "status"),
                   Number<int>(request, "times"),
                   Number<int>(request, "skip", 0)));
}

void SetOneDelay(const json_t *request, json_t *)
{
    Delay delay;
    const json_t *length = json_object_get(request, "microseconds");
    const char *word = json_string_value(length);
    delay.microseconds = word != nullptr && std::string(word) == "hang"
                             ? kHang
                             : NumberOf<unsigned>(length, "microseconds");
    delay.random = json_is_true(json_object_get(request, "random"));
    delay.late = json_is_true(json_object_get(request, "late"));
    delay.oid = Number<uint32_t>(request, "oid", 0);
    delay.skip = Number<int>(request, "skip", 0);
    delay.times = Number<int>(request, "times", -1);
    delay.text = Has(request, "text") ? Text(request, "text") : "";
    Check(SetDelay(Text(request, "call"), delay));
}

// The reply to a question about a platform function.
template <typename Count>
void CountOf(const json_t *request, json_t *reply, Count count)
{
    const std::string call = Text(request, "call");
    if (CallIndex(call) == kCallCount)
    {
        Refuse("%s", NoSuchCall(call).c_str());
    }
    json_object_set_new(reply, "count",
                        json_integer(static_cast<json_int_t>(count(call))));
}

void Calls(const json_t *request, json_t *reply)
{
    CountOf(request, reply, CallCount);
}

void Hanging(const json_t *request, json_t *reply)
{
    CountOf(request, reply, HangingCalls);
}

void Measure(const json_t *request, json_t *)
{
    const json_t *isOn = json_object_get(request, "on");
    if (!json_is_boolean(isOn))
    {
        Refuse("\"on\" has to be true or false");
    }
    MeasureCost(json_is_true(isOn));
}

void TellCost(json_t *reply)
{
    const CallCost cost = Cost();
    json_object_update_new(
        reply,
        json_pack("{s:I,s:I,s:I,s:I}", "calls",
                  static_cast<json_int_t>(cost.calls), "cpuNanoseconds",
                  json_int_t{cost.cpuNanoseconds}, "clockNanoseconds",
                  json_int_t{cost.clockNanoseconds}, "ownThreadNanoseconds",
                  json_int_t{cost.ownThreadNanoseconds}));
}

void Attributes(json_t *reply)
{
    json_t *integers = json_object();
    json_object_set_new(reply, "integers", integers);
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    for (const auto &[key, value] : state.integers)
    {
        json_object_set_new(integers, key.c_str(), json_integer(value));
    }
}

void Wait(const json_t *request, json_t *)
{
    const auto timeoutMs = Number<int>(request, "timeoutMs");
    if (!WaitDelivered(timeoutMs))
    {
        Refuse("events still wait after %d ms", timeoutMs);
    }
}

// Always succeeds itself: each reply tells about its own command.
void Batch(const json_t *request, json_t *reply)
{
    const json_t *commands = json_object_get(request, "ops");
    if (!json_is_array(commands))
    {
        Refuse("\"ops\" has to be an array");
    }
    json_t *replies = json_array();
    json_object_set_new(reply, "replies", replies);
    for (size_t i = 0; i < json_array_size(commands); ++i)
    {
        json_array_append_new(replies,
                              Execute(json_array_get(commands, i)).release());
    }
}

struct Command
{
    const char *op;
    void (*run)(const json_t *request, json_t *reply);
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
    {"detach",     [](const json_t *, json_t *) { Detach(); }},
    {"attach",     [](const json_t *, json_t *) { Attach(); }},
    {"event",      Event},
    {"announce",   AnnounceMany},
    {"object",     RawObject},
    {"config",     Config},
    {"attribute",  [](const json_t *request, json_t *) { PutOneAttribute(request); }},
    {"remove",     Remove},
    {"fault",      Fault},
    {"delay",      SetOneDelay},
    {"release",    [](const json_t *, json_t *) { ReleaseDelays(); }},
    {"calls",      Calls},
    {"hanging",    Hanging},
    {"measure",    Measure},
    {"cost",       [](const json_t *, json_t *reply) { TellCost(reply); }},
    {"memory",     [](const json_t *, json_t *reply) { Memory(reply); }},
    {"attributes", [](const json_t *, json_t *reply) { Attributes(reply); }},
    {"wait",       Wait},
    {"reset",      [](const json_t *, json_t *) { Reset(); }},
    {"batch",      Batch},
};
// clang-format on

void Run(const json_t *request, json_t *reply)
{
    const std::string op = Text(request, "op");
    const auto *command = std::ranges::find(kCommands, op, &Command::op);
    if (command == std::end(kCommands))
    {
        Refuse("there is no command \"%s\"", op.c_str());
    }
    command->run(request, reply);
}

template <typename Body>
Error Attempt(Body body)
{
    try
    {
        body();
        return {};
    }
    catch (const Refusal &refusal)
    {
        return refusal.reason;
    }
}

} // namespace

Json Execute(const json_t *request)
{
    Json reply(json_pack("{s:b}", "ok", 1));
    const Error error = Attempt(
        [&]
        {
            Run(request, reply.get());
        });
    return error.empty() ? std::move(reply) : FailureReply(error);
}

Json FailureReply(const Error &error)
{
    // A parser's text may be cut in the middle of a character.
    json_t *text = json_string(error.c_str());
    return Json(json_pack("{s:b,s:o}", "ok", 0, "error",
                          text == nullptr ? json_string("unknown") : text));
}

Error CreateFromJson(const json_t *arguments)
{
    return Attempt(
        [&]
        {
            CreateOne(arguments, false);
        });
}

Error AttributeFromJson(const json_t *arguments)
{
    return Attempt(
        [&]
        {
            PutOneAttribute(arguments);
        });
}

Error FaultFromJson(const json_t *arguments)
{
    return Attempt(
        [&]
        {
            Fault(arguments, nullptr);
        });
}

Error DelayFromJson(const json_t *arguments)
{
    return Attempt(
        [&]
        {
            SetOneDelay(arguments, nullptr);
        });
}

} // namespace standin
