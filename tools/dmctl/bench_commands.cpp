// The subcommands that work the Data Manager itself: events, load, faults,
// delays, costs and the integers that the service sets.
#include "tools/dmctl/commands.h"
#include "tools/dmctl/host_files.h"

#include <cstdio>

namespace qdb
{

namespace
{

// As hexadecimal digits it stays well below the longest line.
constexpr size_t kLongestRecord = 4u << 20;

void Detach(Client &client, const Invocation &)
{
    client.Call(Operation("detach"));
}

void Attach(Client &client, const Invocation &)
{
    client.Call(Operation("attach"));
}

std::string HexOf(const std::string &bytes)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (const char byte : bytes)
    {
        const auto value = static_cast<unsigned char>(byte);
        hex += kDigits[value >> 4];
        hex += kDigits[value & 15];
    }
    return hex;
}

void SendEvent(Client &client, const Invocation &invocation)
{
    const std::optional<std::string> bytes =
        ReadFile(invocation.name, kLongestRecord);
    if (!bytes || bytes->size() == kLongestRecord)
    {
        throw std::invalid_argument("cannot send " + invocation.name);
    }
    const Json request = Operation("event");
    Put(request, "hex", Text(HexOf(*bytes)));
    client.Call(request);
}

void PutTypes(const Json &request, const Invocation &invocation)
{
    if (!invocation.types.empty())
    {
        Put(request, "types", NumberArray(invocation.types));
    }
}

void Generate(Client &client, const Invocation &invocation)
{
    const Json request = Operation("generate");
    Put(request, "count", Number(invocation.count));
    PutTypes(request, invocation);
    client.Call(request);
}

void Churn(Client &client, const Invocation &invocation)
{
    const Json request = Operation("churn");
    Put(request, "count", Number(invocation.count));
    Put(request, "rate", Json(json_real(invocation.rate)));
    PutTypes(request, invocation);
    client.Call(request);
}

void SetFault(Client &client, const Invocation &invocation)
{
    const Json request = Operation("fault");
    Put(request, "call", Text(invocation.name));
    Put(request, "status", Json(json_integer(invocation.status)));
    Put(request, "times", Json(json_integer(invocation.times)));
    Put(request, "skip", Json(json_integer(invocation.skip)));
    client.Call(request);
}

void SetDelay(Client &client, const Invocation &invocation)
{
    const Json request = Operation("delay");
    Put(request, "call", Text(invocation.name));
    Put(request, "microseconds", Text(invocation.duration));
    Put(request, "random", Json(json_boolean(invocation.random)));
    Put(request, "late", Json(json_boolean(invocation.late)));
    Put(request, "oid", Number(invocation.oid));
    Put(request, "skip", Json(json_integer(invocation.skip)));
    Put(request, "times", Json(json_integer(invocation.times)));
    Put(request, "text", Text(invocation.text));
    client.Call(request);
}

void Release(Client &client, const Invocation &)
{
    client.Call(Operation("release"));
}

void PrintCount(Client &client, const Invocation &invocation,
                const char *operation)
{
    const Json request = Operation(operation);
    Put(request, "call", Text(invocation.name));
    const Json reply = client.Call(request);
    printf("%llu\n",
           static_cast<unsigned long long>(NumberOf(reply.get(), "count")));
}

void PrintCalls(Client &client, const Invocation &invocation)
{
    PrintCount(client, invocation, "calls");
}

void PrintHanging(Client &client, const Invocation &invocation)
{
    PrintCount(client, invocation, "hanging");
}

void Measure(Client &client, const Invocation &invocation)
{
    const Json request = Operation("measure");
    Put(request, "on", Json(json_boolean(invocation.isOn)));
    client.Call(request);
}

void PrintCost(Client &client, const Invocation &)
{
    const Json reply = client.Call(Operation("cost"));
    json_object_del(reply.get(), "ok");
    const char *name;
    json_t *value;
    json_object_foreach(reply.get(), name, value)
    {
        printf("%s %lld\n", name,
               static_cast<long long>(json_integer_value(value)));
    }
}

void PrintAttributes(Client &client, const Invocation &)
{
    const Json reply = client.Call(Operation("attributes"));
    const char *key;
    json_t *value;
    json_object_foreach(json_object_get(reply.get(), "integers"), key, value)
    {
        printf("%s %lld\n", key,
               static_cast<long long>(json_integer_value(value)));
    }
}

void AddEventCommands(CLI::App &app, Invocation *pInvocation)
{
    AddSubcommand(app, pInvocation, "detach", "take the Data Manager away",
                  Detach);
    AddSubcommand(app, pInvocation, "attach",
                  "bring the Data Manager and its objects back", Attach);

    CLI::App *event = AddSubcommand(app, pInvocation, "event",
                                    "send a record as it is", SendEvent);
    event->add_option("file", pInvocation->name, "file with its bytes")
        ->required();
}

void AddLoadCommands(CLI::App &app, Invocation *pInvocation)
{
    CLI::App *generate =
        AddSubcommand(app, pInvocation, "generate",
                      "add objects with plausible contents", Generate);
    generate->add_option("count", pInvocation->count, "how many")->required();
    generate->add_option("types", pInvocation->types, "default: all types");

    CLI::App *churn = AddSubcommand(app, pInvocation, "churn",
                                    "change one column at a time", Churn);
    churn->add_option("--rate", pInvocation->rate,
                      "changes a second; 0: as many as are taken");
    churn->add_option("--count", pInvocation->count, "how many changes")
        ->default_val(100);
    churn->add_option("types", pInvocation->types, "default: all types");
}

void AddFaultCommands(CLI::App &app, Invocation *pInvocation)
{
    CLI::App *fault = AddSubcommand(
        app, pInvocation, "fault",
        "let the next calls of a platform function fail", SetFault);
    fault->add_option("call", pInvocation->name, "function")->required();
    fault->add_option("status", pInvocation->status, "what it returns")
        ->required();
    fault->add_option("times", pInvocation->times, "how often; 0: no more")
        ->required();
    fault->add_option("--skip", pInvocation->skip, "after so many good calls");

    CLI::App *calls =
        AddSubcommand(app, pInvocation, "calls",
                      "print how often a function was called", PrintCalls);
    calls->add_option("call", pInvocation->name, "function")->required();
}

void AddDelayCommands(CLI::App &app, Invocation *pInvocation)
{
    CLI::App *delay =
        AddSubcommand(app, pInvocation, "delay",
                      "let calls of a platform function take time", SetDelay);
    delay->add_option("call", pInvocation->name, "function")->required();
    delay
        ->add_option("microseconds", pInvocation->duration,
                     "how long, or hang: until released; 0: no more")
        ->required();
    delay->add_flag("--random", pInvocation->random,
                    "of any length up to that");
    delay->add_flag("--late", pInvocation->late,
                    "behind the answer, which is old when it arrives");
    delay->add_option("--oid", pInvocation->oid,
                      "only calls about that object");
    delay->add_option("--skip", pInvocation->skip, "after so many quick calls");
    delay->add_option("--times", pInvocation->times, "how often; -1: always")
        ->default_val(-1);
    delay->add_option("--text", pInvocation->text,
                      "vexoprintf: only lines that have it");

    AddSubcommand(app, pInvocation, "release",
                  "remove all delays; what hangs goes on", Release);

    CLI::App *hanging = AddSubcommand(
        app, pInvocation, "hanging",
        "print how many calls of a function hang now", PrintHanging);
    hanging->add_option("call", pInvocation->name, "function")->required();
}

void AddCostCommands(CLI::App &app, Invocation *pInvocation)
{
    CLI::App *measure =
        AddSubcommand(app, pInvocation, "measure",
                      "begin or end to measure what answers cost", Measure);
    measure
        ->add_option("on", pInvocation->isOn,
                     "on or off, while no event is delivered")
        ->required();

    AddSubcommand(app, pInvocation, "cost",
                  "print the sums of what was measured", PrintCost);
}

void AddAttributeCommands(CLI::App &app, Invocation *pInvocation)
{
    AddSubcommand(app, pInvocation, "attributes",
                  "list the integers that the service has set",
                  PrintAttributes);
}

} // namespace

void AddBenchCommands(CLI::App &app, Invocation *pInvocation)
{
    AddEventCommands(app, pInvocation);
    AddLoadCommands(app, pInvocation);
    AddFaultCommands(app, pInvocation);
    AddDelayCommands(app, pInvocation);
    AddCostCommands(app, pInvocation);
    AddAttributeCommands(app, pInvocation);
}

} // namespace qdb
