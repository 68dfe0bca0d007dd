// Makes the database file of the service, or prints what is in it.
#include "tools/qdb/command.h"
#include "tools/schema_markdown.h"
#include "tools/schema_sql.h"

#include <cstdio>

namespace qdb::tool
{
namespace
{

struct CreateOptions
{
    std::string name; // of the program, for errors
    std::string path;
    bool isForced = false;
};

int Create(const CreateOptions &options)
{
    std::string error;
    if (!CreateDatabase(options.path, options.isForced, &error))
    {
        std::fprintf(stderr, "%s: %s\n", options.name.c_str(), error.c_str());
        return kFailed;
    }
    return kFine;
}

void AddPrinter(CLI::App &app, const char *name, const char *what,
                std::string (*text)(), Work *pWork)
{
    app.add_subcommand(name, what)
        ->callback(
            [text, pWork]
            {
                *pWork = [text]
                {
                    Print(text());
                    return kFine;
                };
            });
}

} // namespace

void AddSchemaCommands(CLI::App &app, const std::string &name, Work *pWork)
{
    app.require_subcommand(1);
    const auto options = std::make_shared<CreateOptions>();
    options->name = name;
    CLI::App *create = app.add_subcommand("create", "make the database file");
    create->add_option("PATH", options->path, "of the new file")->required();
    create->add_flag("--force", options->isForced,
                     "replace a file that is there");
    create->callback(
        [options, pWork]
        {
            *pWork = [options]
            {
                return Create(*options);
            };
        });
    AddPrinter(app, "sql", "print the schema as SQL", SchemaSql, pWork);
    AddPrinter(app, "markdown", "print a reference of all tables",
               SchemaMarkdown, pWork);
}

} // namespace qdb::tool
