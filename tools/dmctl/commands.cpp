#include "tools/dmctl/commands.h"

#include <cstdio>

namespace qdb
{

CLI::App *AddSubcommand(CLI::App &app, Invocation *pInvocation,
                        const char *name, const char *description, Run run)
{
    CLI::App *subcommand = app.add_subcommand(name, description);
    subcommand->callback(
        [pInvocation, run = std::move(run)]
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

} // namespace qdb
