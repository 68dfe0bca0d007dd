// The subcommands that make, change, remove and show objects.
#include "tools/dmctl/commands.h"

#include <cstdio>

namespace qdb
{

namespace
{

void Create(Client &client, const Invocation &invocation)
{
    const Json request = Operation("create");
    Put(request, "type", Number(invocation.type));
    if (invocation.oid != 0)
    {
        Put(request, "oid", Number(invocation.oid));
    }
    if (!invocation.key.empty())
    {
        Put(request, "key", Text(invocation.key));
    }
    Put(request, "parents", NumberArray(invocation.oids));
    Put(request, "values", ParseAssignments(invocation.assignments));
    const Json reply = client.Call(request);
    printf("0x%08X\n", static_cast<unsigned>(NumberOf(reply.get(), "oid")));
}

void Set(Client &client, const Invocation &invocation)
{
    const Json request = Operation("set");
    Put(request, "oid", Number(invocation.oid));
    Put(request, "values", ParseAssignments(invocation.assignments));
    client.Call(request);
}

void Delete(Client &client, const Invocation &invocation)
{
    const Json request = Operation("delete");
    Put(request, "oids", NumberArray(invocation.oids));
    client.Call(request);
}

void SetStatus(Client &client, const Invocation &invocation)
{
    const Json request = Operation("status");
    Put(request, "oid", Number(invocation.oid));
    Put(request, "status", Json(json_integer(invocation.status)));
    client.Call(request);
}

void List(Client &client, const Invocation &invocation)
{
    const Json request = Operation("list");
    if (invocation.type != 0)
    {
        Put(request, "type", Number(invocation.type));
    }
    const Json reply = client.Call(request);
    size_t index;
    json_t *object;
    json_array_foreach(json_object_get(reply.get(), "objects"), index, object)
    {
        printf("0x%08X  0x%-4X  %s\n",
               static_cast<unsigned>(NumberOf(object, "oid")),
               static_cast<unsigned>(NumberOf(object, "type")),
               TextOf(object, "key").c_str());
    }
}

void PrintForPeople(const json_t *object)
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

void Show(Client &client, const Invocation &invocation)
{
    const Json request = Operation("show");
    Put(request, "oid", Number(invocation.oid));
    const Json reply = client.Call(request);
    if (!invocation.json)
    {
        PrintForPeople(reply.get());
        return;
    }
    json_object_del(reply.get(), "ok");
    printf("%s\n", Dump(reply.get(), JSON_INDENT(2)).c_str());
}

void AddChangingCommands(CLI::App &app, Invocation *pInvocation)
{
    CLI::App *create = AddSubcommand(app, pInvocation, "create",
                                     "add an object; prints its OID", Create);
    create->add_option("type", pInvocation->type, "object type")->required();
    create->add_option("--oid", pInvocation->oid, "default: the next free one");
    create->add_option("--parent", pInvocation->oids, "OID; may be repeated")
        ->allow_extra_args(false);
    create->add_option("--key", pInvocation->key,
                       "default: as the type has it");
    create->add_option("values", pInvocation->assignments, kAssignmentHelp);

    CLI::App *set = AddSubcommand(app, pInvocation, "set",
                                  "change columns of an object", Set);
    set->add_option("oid", pInvocation->oid, "object")->required();
    set->add_option("values", pInvocation->assignments, kAssignmentHelp)
        ->required();

    CLI::App *remove =
        AddSubcommand(app, pInvocation, "delete", "remove objects", Delete);
    remove->add_option("oids", pInvocation->oids, "objects")->required();

    CLI::App *status = AddSubcommand(app, pInvocation, "status",
                                     "change an object's status", SetStatus);
    status->add_option("oid", pInvocation->oid, "object")->required();
    status->add_option("status", pInvocation->status, "0 to 255")
        ->required()
        ->check(CLI::Range(0, 255));
}

void AddReadingCommands(CLI::App &app, Invocation *pInvocation)
{
    CLI::App *list =
        AddSubcommand(app, pInvocation, "list", "list OID, type and key", List);
    list->add_option("type", pInvocation->type, "default: all types");

    CLI::App *show =
        AddSubcommand(app, pInvocation, "show", "show an object", Show);
    show->add_option("oid", pInvocation->oid, "object")->required();
    show->add_flag("--json", pInvocation->json, "as one JSON object");
}

} // namespace

CLI::App *AddSubcommand(CLI::App &app, Invocation *pInvocation,
                        const char *name, const char *description, Run run)
{
    CLI::App *subcommand = app.add_subcommand(name, description);
    subcommand->callback(
        [pInvocation, run]
        {
            pInvocation->run = run;
        });
    return subcommand;
}

void PrintValues(json_t *values)
{
    const char *name;
    json_t *value;
    json_object_foreach(values, name, value)
    {
        printf("  %s = %s\n", name, Dump(value).c_str());
    }
}

Json ParseAssignments(const std::vector<std::string> &assignments)
{
    Json values(json_object());
    for (const std::string &assignment : assignments)
    {
        const size_t equals = assignment.find('=');
        if (equals == 0 || equals == std::string::npos)
        {
            throw std::invalid_argument("not COLUMN=VALUE: " + assignment);
        }
        const std::string text = assignment.substr(equals + 1);
        json_error_t error;
        Json value(
            json_loadb(text.data(), text.size(), JSON_DECODE_ANY, &error));
        Put(values, assignment.substr(0, equals),
            value == nullptr ? Text(text) : std::move(value));
    }
    return values;
}

void AddObjectCommands(CLI::App &app, Invocation *pInvocation)
{
    AddChangingCommands(app, pInvocation);
    AddReadingCommands(app, pInvocation);
}

} // namespace qdb
