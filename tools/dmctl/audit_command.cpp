// The subcommand that compares a service's database with its objects.
#include "db/statement_ptr.h"
#include "tools/audit/audit.h"
#include "tools/dmctl/commands.h"

#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace qdb
{

namespace
{

constexpr int kBusyTimeoutMs = 10000;

// The pauses between the looks grow from 100 ms to twice the last, 13 seconds
// in all: some attributes are read again only on the service's regular passes,
// about five seconds apart.
constexpr int kLooks = 8;

void PauseAfter(int look)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(50 << look));
}

ConnectionPtr OpenDatabase(const std::string &path)
{
    sqlite3 *opened = nullptr;
    const int status =
        sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READONLY, nullptr);
    ConnectionPtr connection(opened);
    if (status != SQLITE_OK)
    {
        throw CannotLook(path + ": " + sqlite3_errstr(status));
    }
    sqlite3_busy_timeout(opened, kBusyTimeoutMs);
    return connection;
}

audit::Report Look(Client &client, const std::string &path)
{
    const ConnectionPtr database = OpenDatabase(path);
    const auto fetch = [&client]
    {
        return audit::ParseContent(client.Call(Operation("dump")).get());
    };
    try
    {
        return audit::Looks(kLooks, fetch, database.get(), PauseAfter);
    }
    catch (const audit::Unreadable &failure)
    {
        throw CannotLook(path + ": " + failure.what());
    }
    catch (const Refused &failure)
    {
        throw CannotLook(failure.what());
    }
    catch (const std::invalid_argument &failure)
    {
        throw CannotLook(failure.what());
    }
}

void Audit(Client &client, const Invocation &invocation)
{
    const audit::Report report = Look(client, invocation.database);
    for (const audit::Unstorable &object : report.unstorable)
    {
        printf("%s\n", audit::Print(object).c_str());
    }
    for (const audit::Difference &difference : report.differences)
    {
        printf("%s\n", audit::Print(difference).c_str());
    }
    printf("%s\n", audit::Summary(report).c_str());
    if (!report.differences.empty())
    {
        throw std::runtime_error("the database differs from the objects");
    }
}

} // namespace

void AddAuditCommand(CLI::App &app, Invocation *pInvocation)
{
    CLI::App *audit = AddSubcommand(
        app, pInvocation, "audit",
        "compare every object with its row in the database; looks again for a "
        "while where they differ",
        Audit);
    audit
        ->add_option("--database", pInvocation->database,
                     "the service's database file")
        ->required();
}

} // namespace qdb
