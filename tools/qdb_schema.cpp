// qdb-schema: makes the database file of the service, or prints what is in it.
#include "tools/schema_markdown.h"
#include "tools/schema_sql.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

namespace
{

int Create(const std::string &path, bool force)
{
    std::string error;
    if (!qdb::CreateDatabase(path, force, &error))
    {
        std::fprintf(stderr, "qdb-schema: %s\n", error.c_str());
        return 1;
    }
    return 0;
}

int Print(const std::string &text)
{
    if (std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) == EOF)
    {
        std::perror("qdb-schema: standard output");
        return 1;
    }
    return 0;
}

int Run(int argc, char **argv)
{
    CLI::App app("Makes the database file of QuillonDB.", "qdb-schema");
    app.require_subcommand(1);

    std::string path;
    bool force = false;
    CLI::App *create = app.add_subcommand("create", "make the database file");
    create->add_option("PATH", path, "of the new file")->required();
    create->add_flag("--force", force, "replace a file that is there");
    CLI::App *sql = app.add_subcommand("sql", "print the schema as SQL");
    app.add_subcommand("markdown", "print a reference of all tables");

    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError &error)
    {
        return app.exit(error) == 0 ? 0 : 1;
    }
    if (create->parsed())
    {
        return Create(path, force);
    }
    return Print(sql->parsed() ? qdb::SchemaSql() : qdb::SchemaMarkdown());
}

} // namespace

int main(int argc, char **argv)
{
    try
    {
        return Run(argc, argv);
    }
    catch (const std::exception &error)
    {
        std::fprintf(stderr, "qdb-schema: %s\n", error.what());
        return 1;
    }
}
