// The subcommands that work the Data Manager: each is an operation of the
// stand-in's, with its members given as arguments.
#include "tools/dmctl/commands.h"
#include "tools/dmctl/host_files.h"

#include <cstdio>
#include <functional>

namespace qdb
{
namespace
{

// As hexadecimal digits it stays well below the longest line.
constexpr size_t kLongestRecord = 4u << 20;

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

// The bytes of a file, as the stand-in takes them.
Json RecordIn(const std::string &file)
{
    const std::optional<std::string> bytes = ReadFile(file, kLongestRecord);
    if (!bytes || bytes->size() == kLongestRecord)
    {
        throw std::invalid_argument("cannot send " + file);
    }
    return Text(HexOf(*bytes));
}

// What the user gives for a member of the request. Declares the argument.
using Declare = CLI::Option *(*)(CLI::App &app, const char *option,
                                 const char *help,
                                 std::function<void(Json)> put);

template <typename T, Json (*Make)(const T &)>
CLI::Option *As(CLI::App &app, const char *option, const char *help,
                std::function<void(Json)> put)
{
    return app.add_option_function<T>(
        option,
        [put = std::move(put)](const T &value)
        {
            put(Make(value));
        },
        help);
}

template <typename T>
Json MakeInteger(const T &value)
{
    return Json(json_integer(value));
}

template <typename T>
constexpr Declare kInteger = As<T, MakeInteger<T>>;

template <typename T>
constexpr Declare kIntegers = As<std::vector<T>, NumberArray<T>>;

constexpr Declare kText = As<std::string, Text>;
constexpr Declare kFile = As<std::string, RecordIn>;
constexpr Declare kAssignments = As<std::vector<std::string>, ParseAssignments>;
constexpr Declare kReal = As<double, [](const double &value)
                             {
                                 return Json(json_real(value));
                             }>;
constexpr Declare kBoolean = As<bool, [](const bool &value)
                                {
                                    return Json(json_boolean(value));
                                }>;

CLI::Option *kByte(CLI::App &app, const char *option, const char *help,
                   std::function<void(Json)> put)
{
    return kInteger<int>(app, option, help, std::move(put))
        ->check(CLI::Range(0, 255));
}

// One value each time it is given.
CLI::Option *kRepeated(CLI::App &app, const char *option, const char *help,
                       std::function<void(Json)> put)
{
    return kIntegers<uint32_t>(app, option, help, std::move(put))
        ->allow_extra_args(false);
}

CLI::Option *kFlag(CLI::App &app, const char *option, const char *help,
                   std::function<void(Json)> put)
{
    return app.add_flag_callback(
        option,
        [put = std::move(put)]
        {
            put(Json(json_true()));
        },
        help);
}

enum class Need
{
    May,
    Must,
};

struct Argument
{
    const char *option; // without dashes: by its place
    const char *member;
    Declare declare;
    Need need;
    const char *help;
};

// --- What is printed of a reply --------------------------------------------

void PrintOid(json_t *reply)
{
    printf("0x%08X\n", static_cast<unsigned>(NumberOf(reply, "oid")));
}

void PrintCount(json_t *reply)
{
    printf("%llu\n", static_cast<unsigned long long>(NumberOf(reply, "count")));
}

void PrintNumbers(json_t *numbers)
{
    const char *name;
    json_t *value;
    json_object_foreach(numbers, name, value)
    {
        printf("%s %lld\n", name,
               static_cast<long long>(json_integer_value(value)));
    }
}

void PrintIntegers(json_t *reply)
{
    PrintNumbers(json_object_get(reply, "integers"));
}

void PrintList(json_t *reply)
{
    size_t index;
    json_t *object;
    json_array_foreach(json_object_get(reply, "objects"), index, object)
    {
        printf("0x%08X  0x%-4X  %s\n",
               static_cast<unsigned>(NumberOf(object, "oid")),
               static_cast<unsigned>(NumberOf(object, "type")),
               TextOf(object, "key").c_str());
    }
}

void PrintObject(json_t *object)
{
    printf("OID 0x%08X, type 0x%X, status %u, %zu bytes\n",
           static_cast<unsigned>(NumberOf(object, "oid")),
           static_cast<unsigned>(NumberOf(object, "type")),
           static_cast<unsigned>(NumberOf(object, "status")),
           TextOf(object, "hex").size() / 2);
    printf("key %s\nparents", TextOf(object, "key").c_str());
    size_t index;
    json_t *parent;
    json_array_foreach(json_object_get(object, "parents"), index, parent)
    {
        printf(" 0x%08X", static_cast<unsigned>(json_integer_value(parent)));
    }
    printf("\n");
    PrintValues(json_object_get(object, "values"));
}

struct Subcommand
{
    const char *op;
    const char *help;
    std::vector<Argument> arguments;
    void (*print)(json_t *reply) = nullptr;
    bool offersJson = false; // the whole reply, for programs
};

// clang-format off
const Argument kOid = {"oid", "oid", kInteger<uint32_t>, Need::Must, "object"};
const Argument kCall = {"call", "call", kText, Need::Must, "function"};
const Argument kTypes = {"types", "types", kIntegers<uint16_t>, Need::May, "default: all types"};

const Subcommand kSubcommands[] = {
    {"create", "add an object; prints its OID",
     {{"type", "type", kInteger<uint16_t>, Need::Must, "object type"},
      {"--oid", "oid", kInteger<uint32_t>, Need::May, "default: the next free one"},
      {"--parent", "parents", kRepeated, Need::May, "OID; may be repeated"},
      {"--key", "key", kText, Need::May, "default: as the type has it"},
      {"values", "values", kAssignments, Need::May, kAssignmentHelp}},
     PrintOid},
    {"set", "change columns of an object",
     {kOid, {"values", "values", kAssignments, Need::Must, kAssignmentHelp}}},
    {"delete", "remove objects",
     {{"oids", "oids", kIntegers<uint32_t>, Need::Must, "objects"}}},
    {"status", "change an object's status",
     {kOid, {"status", "status", kByte, Need::Must, "0 to 255"}}},
    {"list", "list OID, type and key",
     {{"type", "type", kInteger<uint16_t>, Need::May, "default: all types"}},
     PrintList},
    {"show", "show an object", {kOid}, PrintObject, true},
    {"detach", "take the Data Manager away", {}},
    {"attach", "bring the Data Manager and its objects back", {}},
    {"event", "send a record as it is",
     {{"file", "hex", kFile, Need::Must, "file with its bytes"}}},
    {"generate", "add objects with plausible contents",
     {{"count", "count", kInteger<uint32_t>, Need::Must, "how many"}, kTypes}},
    {"churn", "change one column at a time",
     {{"--rate", "rate", kReal, Need::May, "changes a second; 0: as many as are taken"},
      {"--count", "count", kInteger<uint32_t>, Need::May, "how many changes; default: 100"},
      kTypes}},
    {"fault", "let the next calls of a platform function fail",
     {kCall,
      {"status", "status", kInteger<int>, Need::Must, "what it returns"},
      {"times", "times", kInteger<int>, Need::Must, "how often; 0: no more"},
      {"--skip", "skip", kInteger<int>, Need::May, "after so many good calls"}}},
    {"calls", "print how often a function was called", {kCall}, PrintCount},
    {"delay", "let calls of a platform function take time",
     {kCall,
      {"microseconds", "microseconds", kText, Need::Must, "how long, or hang: until released; 0: no more"},
      {"--random", "random", kFlag, Need::May, "of any length up to that"},
      {"--late", "late", kFlag, Need::May, "behind the answer, which is old when it arrives"},
      {"--oid", "oid", kInteger<uint32_t>, Need::May, "only calls about that object"},
      {"--skip", "skip", kInteger<int>, Need::May, "after so many quick calls"},
      {"--times", "times", kInteger<int>, Need::May, "how often; default: always"},
      {"--text", "text", kText, Need::May, "vexoprintf: only lines that have it"}}},
    {"release", "remove all delays; what hangs goes on", {}},
    {"hanging", "print how many calls of a function hang now", {kCall}, PrintCount},
    {"measure", "begin or end to measure what answers cost",
     {{"on", "on", kBoolean, Need::Must, "on or off, while no event is delivered"}}},
    {"cost", "print the sums of what was measured", {}, PrintNumbers},
    {"attributes", "list the integers that the service has set", {}, PrintIntegers},
};
// clang-format on

void CarryOut(Client &client, const Invocation &invocation,
              const Subcommand &subcommand)
{
    const Json reply = client.Call(invocation.request);
    json_object_del(reply.get(), "ok");
    if (invocation.json)
    {
        printf("%s\n", Dump(reply.get(), JSON_INDENT(2)).c_str());
    }
    else if (subcommand.print != nullptr)
    {
        subcommand.print(reply.get());
    }
}

} // namespace

void AddManagerCommands(CLI::App &app, Invocation *pInvocation)
{
    for (const Subcommand &subcommand : kSubcommands)
    {
        CLI::App *added = AddSubcommand(
            app, pInvocation, subcommand.op, subcommand.help,
            [&](Client &client, const Invocation &invocation)
            {
                Put(invocation.request, "op", Text(subcommand.op));
                CarryOut(client, invocation, subcommand);
            });
        for (const Argument &argument : subcommand.arguments)
        {
            argument
                .declare(*added, argument.option, argument.help,
                         [&, pInvocation](Json value)
                         {
                             Put(pInvocation->request, argument.member,
                                 std::move(value));
                         })
                ->required(argument.need == Need::Must);
        }
        if (subcommand.offersJson)
        {
            added->add_flag("--json", pInvocation->json, "as one JSON object");
        }
    }
}

} // namespace qdb
