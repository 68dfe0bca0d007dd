// qdb: looks at the mirror.
//
// Under the name qdb-schema it is the program that makes the database's file,
// which the service's unit runs.
#include "tools/qdb/command.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <string_view>

namespace qdb::tool
{
namespace
{

constexpr const char *kSchemaName = "qdb-schema";

// Runs the command; `usage` is the status for a wrong command line.
int Run(CLI::App &app, const Work &work, int argc, char **argv, int usage)
{
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError &error)
    {
        return app.exit(error) == 0 ? kFine : usage;
    }
    return work();
}

int RunSchema(int argc, char **argv)
{
    Work work;
    CLI::App app("Makes the database file of QuillonDB.", kSchemaName);
    AddSchemaCommands(app, kSchemaName, &work);
    return Run(app, work, argc, argv, kFailed);
}

int RunAll(int argc, char **argv)
{
    Work work;
    CLI::App app("Looks at QuillonDB's mirror of a server's hardware.", "qdb");
    app.footer("Exit status: 0 fine, 1 failed or not found, 2 wrong usage, 3 "
               "not in time (wait) or not running (status).\nMore: qdb COMMAND "
               "--help, and qdb(1).");
    app.require_subcommand(1);
    AddReadCommands(app, &work);
    AddWatchCommand(app, &work);
    AddWaitCommand(app, &work);
    AddStatusCommand(app, &work);
    CLI::App *schema = app.add_subcommand(
        "schema", "make the database's file, or print what is in it");
    AddSchemaCommands(*schema, "qdb schema", &work);
    return Run(app, work, argc, argv, kUsage);
}

bool IsSchema(const char *program)
{
    const std::string_view path = program == nullptr ? "" : program;
    return path.substr(path.rfind('/') + 1) == kSchemaName;
}

} // namespace
} // namespace qdb::tool

int main(int argc, char **argv)
{
    using namespace qdb::tool;
    std::signal(SIGPIPE, SIG_IGN);
    const bool isSchema = IsSchema(argc > 0 ? argv[0] : nullptr);
    try
    {
        return isSchema ? RunSchema(argc, argv) : RunAll(argc, argv);
    }
    catch (const ReaderGone &)
    {
        return kFine;
    }
    catch (const std::exception &error)
    {
        std::fprintf(stderr, "%s: %s\n", isSchema ? kSchemaName : "qdb",
                     error.what());
        return kFailed;
    }
}
