// dmctl: drives the stand-in platform of a running service.
//
// Exit status: 0 done; 1 the command was wrong or refused, with the reason on
// standard error, or an audit found differences; 2 no stand-in answers at the
// socket, no bus where one is needed, or an audit can't be made.
#include "tools/dmctl/commands.h"

#include <cstdio>

namespace
{

// What to do comes back in *pInvocation; the result is the exit status when
// there is nothing to do, else -1.
int Parse(int argc, char **argv, std::string *pSocket,
          qdb::Invocation *pInvocation)
{
    CLI::App app("Drives the stand-in platform of a running quillondb. Types "
                 "and OIDs are decimal, or hexadecimal with 0x.");
    app.add_option("--socket", *pSocket, "control socket of the stand-in")
        ->envname("QDB_STANDIN_SOCKET");
    app.require_subcommand(1);
    qdb::AddManagerCommands(app, pInvocation);
    qdb::AddConfigCommands(app, pInvocation);
    qdb::AddAuditCommand(app, pInvocation);
    qdb::AddHostCommand(app, pInvocation);
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError &error)
    {
        return app.exit(error) == 0 ? 0 : 1;
    }
    return -1;
}

int Run(int argc, char **argv)
{
    std::string socket;
    qdb::Invocation invocation;
    const int status = Parse(argc, argv, &socket, &invocation);
    if (status >= 0)
    {
        return status;
    }
    qdb::Client client(socket);
    invocation.run(client, invocation);
    return fflush(stdout) == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    try
    {
        return Run(argc, argv);
    }
    catch (const qdb::NoConnection &failure)
    {
        fprintf(stderr, "dmctl: no connection: %s\n", failure.what());
        return 2;
    }
    catch (const qdb::CannotLook &failure)
    {
        fprintf(stderr, "dmctl: %s\n", failure.what());
        return 2;
    }
    catch (const std::exception &failure)
    {
        fprintf(stderr, "dmctl: %s\n", failure.what());
        return 1;
    }
}
