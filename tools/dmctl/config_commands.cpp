// The subcommands that play the configuration manager.
//
// Groups and attributes live in the stand-in; what a configuration manager says
// about them on the bus, dmctl says. The bus is reached before anything is
// changed. A signal that fails afterwards leaves the change in place, like a
// manager that dies between the two. Groups have no interface on the bus, so
// nothing is said about them.
#include "tools/dmctl/commands.h"
#include "tools/dmctl/config_bus.h"

#include <algorithm>
#include <cstdio>
#include <optional>

namespace qdb
{

namespace
{

constexpr char kGroup[] = "CfgGroup";

bool IsGroup(const json_t *object)
{
    return TextOf(object, "interface") == kGroup;
}

Json Described(Client &client, const std::string &prefix)
{
    const Json request = Operation("config");
    Put(request, "prefix", Text(prefix));
    const Json reply = client.Call(request);
    return Share(json_object_get(reply.get(), "objects"));
}

// The attribute of that key or, failing that, the group; NULL when there is
// neither.
Json Find(Client &client, const std::string &key)
{
    const Json objects = Described(client, key);
    json_t *found = nullptr;
    size_t index;
    json_t *object;
    json_array_foreach(objects.get(), index, object)
    {
        found = TextOf(object, "key") == key ? object : found;
    }
    return Share(found);
}

Json Get(Client &client, const std::string &key)
{
    Json found = Find(client, key);
    if (found == nullptr)
    {
        throw std::invalid_argument("there is no attribute or group " + key);
    }
    return found;
}

// The bus, unless the command is to be silent.
std::optional<ConfigBus> BusFor(const Invocation &invocation)
{
    std::optional<ConfigBus> bus;
    if (!invocation.silent)
    {
        bus.emplace();
    }
    return bus;
}

void ListConfig(Client &client, const Invocation &invocation)
{
    const Json objects = Described(client, invocation.key);
    size_t index;
    json_t *object;
    json_array_foreach(objects.get(), index, object)
    {
        const json_t *values = json_object_get(object, "values");
        const json_t *value = json_object_get(values, "CurrentValue");
        value =
            value == nullptr ? json_object_get(values, "currentValue") : value;
        printf("%-18s  0x%08X  %s  %s%s%s\n",
               TextOf(object, "interface").c_str(),
               static_cast<unsigned>(NumberOf(object, "oid")),
               TextOf(object, "key").c_str(), TextOf(object, "path").c_str(),
               value == nullptr ? "" : "  ",
               value == nullptr ? "" : Dump(value).c_str());
    }
}

void ShowConfig(Client &client, const Invocation &invocation)
{
    const Json object = Get(client, invocation.key);
    if (invocation.json)
    {
        printf("%s\n", Dump(object.get(), JSON_INDENT(2)).c_str());
        return;
    }
    printf("%s, OID 0x%08X\nkey %s\npath %s\n",
           TextOf(object.get(), "interface").c_str(),
           static_cast<unsigned>(NumberOf(object.get(), "oid")),
           TextOf(object.get(), "key").c_str(),
           TextOf(object.get(), "path").c_str());
    PrintValues(json_object_get(object.get(), "values"));
}

// Makes or changes an attribute, or makes a group.
void PutConfig(Client &client, const std::string &interfaceName,
               const Invocation &invocation, const Json &values)
{
    const Json request = Operation("attribute");
    Put(request, "interface", Text(interfaceName));
    Put(request, "key", Text(invocation.key));
    Put(request, "values", Share(values.get()));
    if (invocation.oid != 0)
    {
        Put(request, "oid", Number(invocation.oid));
    }
    client.Call(request);
}

void AddConfig(Client &client, const Invocation &invocation)
{
    const Json values = ParseAssignments(invocation.assignments);
    std::optional<ConfigBus> bus = BusFor(invocation);
    const Json existing = Find(client, invocation.key);
    if (existing != nullptr)
    {
        throw std::invalid_argument(invocation.key + " is there already");
    }
    PutConfig(client, invocation.name, invocation, values);
    const Json made = Get(client, invocation.key);
    if (bus && !IsGroup(made.get()))
    {
        bus->SendAdded(made.get());
    }
    printf("0x%08X\n", static_cast<unsigned>(NumberOf(made.get(), "oid")));
}

void SetConfig(Client &client, const Invocation &invocation)
{
    const Json values = ParseAssignments(invocation.assignments);
    std::optional<ConfigBus> bus = BusFor(invocation);
    const Json object = Get(client, invocation.key);
    PutConfig(client, TextOf(object.get(), "interface"), invocation, values);
    if (bus)
    {
        bus->SendChanged(object.get(), values.get());
    }
}

void RemoveConfig(Client &client, const Invocation &invocation)
{
    std::optional<ConfigBus> bus = BusFor(invocation);
    const Json object = Get(client, invocation.key);
    const Json request = Operation("remove");
    Put(request, "interface", Text(TextOf(object.get(), "interface")));
    Put(request, "key", Text(invocation.key));
    client.Call(request);
    if (bus && !IsGroup(object.get()))
    {
        bus->SendRemoved(object.get());
    }
}

void Commit(Client &, const Invocation &invocation)
{
    const std::vector<std::string> interfaces =
        AttributeInterfaces(invocation.names);
    ConfigBus bus;
    for (const std::string &name : interfaces)
    {
        bus.SendCommit(name);
    }
}

void AnnounceRawData(Client &, const Invocation &invocation)
{
    ConfigBus().SendRawData(invocation.key, invocation.name);
}

void OwnName(Client &, const Invocation &invocation)
{
    constexpr double kPause = 0.1;
    ConfigBus bus;
    const sigset_t signals = BlockStopSignals();
    bus.TakeName();
    printf("%s is held\n", kManagerName);
    fflush(stdout);
    double left = invocation.seconds;
    do
    {
        bus.Answer();
        const double pause = std::min(left, kPause);
        left -= pause;
        if (WaitForStop(signals, pause))
        {
            break;
        }
    } while (left > 0);
    bus.GiveUpName();
}

void AddReadingCommands(CLI::App &cfg, Invocation *pInvocation)
{
    CLI::App *list = AddSubcommand(
        cfg, pInvocation, "list",
        "list interface, OID, key, path and value of groups and attributes",
        ListConfig);
    list->add_option("prefix", pInvocation->key, "of the keys; default: all");

    CLI::App *show = AddSubcommand(cfg, pInvocation, "show",
                                   "show an attribute or a group", ShowConfig);
    show->add_option("key", pInvocation->key, "A.1#B.1#C")->required();
    show->add_flag("--json", pInvocation->json, "as one JSON object");
}

void AddChangingCommands(CLI::App &cfg, Invocation *pInvocation)
{
    CLI::App *add = AddSubcommand(cfg, pInvocation, "add",
                                  "add an attribute, and its group if there is "
                                  "none, or a group; prints its OID",
                                  AddConfig);
    add->add_option("interface", pInvocation->name,
                    "CfgIntAttribute ... or CfgGroup")
        ->required();
    add->add_option("key", pInvocation->key, "A.1#B.1#C")->required();
    add->add_option("values", pInvocation->assignments, kAssignmentHelp);
    add->add_option("--oid", pInvocation->oid, "default: the next free one");

    CLI::App *set = AddSubcommand(cfg, pInvocation, "set",
                                  "change columns of an attribute", SetConfig);
    set->add_option("key", pInvocation->key, "attribute")->required();
    set->add_option("values", pInvocation->assignments, kAssignmentHelp)
        ->required();

    CLI::App *remove = AddSubcommand(
        cfg, pInvocation, "remove",
        "remove an attribute, or a group that has none", RemoveConfig);
    remove->add_option("key", pInvocation->key, "attribute or group")
        ->required();

    for (CLI::App *changing : {add, set, remove})
    {
        changing->add_flag("--silent", pInvocation->silent,
                           "send no signal, as if it were forgotten");
    }
}

void AddBusCommands(CLI::App &cfg, Invocation *pInvocation)
{
    CLI::App *commit =
        AddSubcommand(cfg, pInvocation, "commit",
                      "announce that all attributes are to be read", Commit);
    commit->add_option("interfaces", pInvocation->names,
                       "CfgIntAttribute ...; default: all four");

    CLI::App *raw = AddSubcommand(
        cfg, pInvocation, "raw",
        "announce a file as an attribute's new content", AnnounceRawData);
    raw->add_option("key", pInvocation->key, "attribute")->required();
    raw->add_option("file", pInvocation->name, "path as the service sees it")
        ->required();

    CLI::App *own =
        AddSubcommand(cfg, pInvocation, "own",
                      "take the configuration manager's name, and give it up "
                      "at SIGINT or SIGTERM",
                      OwnName);
    own->add_option("--seconds", pInvocation->seconds,
                    "give it up after so long")
        ->check(CLI::Range(0.001, 1e9));
}

} // namespace

void AddConfigCommands(CLI::App &app, Invocation *pInvocation)
{
    CLI::App *cfg = app.add_subcommand(
        "cfg", "play the configuration manager, on the system bus");
    cfg->require_subcommand(1);
    AddReadingCommands(*cfg, pInvocation);
    AddChangingCommands(*cfg, pInvocation);
    AddBusCommands(*cfg, pInvocation);
}

} // namespace qdb
