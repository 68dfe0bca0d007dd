// qdb watch as its user sees it: a real service, its bus and its pipe.
#include "tests/support/bus_sender.h"
#include "tests/support/private_bus.h"
#include "tests/support/program.h"
#include "tests/support/service_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

namespace qdb::test
{
namespace
{

constexpr const char *kTime = "[0-9:]{8}\\.[0-9]{3} ";

std::vector<std::string> Watch(const ServiceProcess &service,
                               const std::vector<std::string> &more)
{
    std::vector<std::string> arguments = {"watch", "--database",
                                          service.Root().Database()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

ServiceOptions Modules()
{
    ServiceOptions options;
    options.scenario = Server(2);
    return options;
}

size_t Count(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + 1))
    {
        ++count;
    }
    return count;
}

TEST(QdbWatch, FollowsRowsThroughTheLivesOfTheService)
{
    const PrivateBus bus;
    ServiceProcess service(Modules());
    // It may begin before everything else.
    Program watch = StartQdb(Watch(service, {"TblMemoryInfo", "--all"}));
    ASSERT_TRUE(watch.WaitFor("qdb: waiting for the mirror\n"));
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    ASSERT_TRUE(watch.WaitFor("qdb: watching\n"));
    ASSERT_TRUE(watch.WaitForLine(
        kTime + std::string("TblMemoryInfo 4096 (Present|Added) DIMM0")));

    service.SetSpeed(2933);
    EXPECT_TRUE(watch.WaitForLine(
        kTime + std::string("TblMemoryInfo 4096 Changed DIMM0: .*"
                            "Speed 0 -> 2933")));
    ASSERT_TRUE(watch.WaitForLine(
        kTime + std::string("TblMemoryInfo 4097 (Present|Added) DIMM1")));
    service.Command(R"({"op":"delete","oids":[4097]})");
    EXPECT_TRUE(watch.WaitForLine(
        kTime + std::string("TblMemoryInfo 4097 Removed DIMM1")));

    EXPECT_EQ(service.Stop(), 0);
    EXPECT_TRUE(watch.WaitFor("qdb: the service, bus or database is away\n"));
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    EXPECT_TRUE(watch.WaitForLine(
        std::string("qdb: the service, bus or database is away\n(.*\n)*") +
        kTime + "TblMemoryInfo 4097 Added DIMM1"));
    EXPECT_TRUE(watch.WaitForLine(
        kTime + std::string("resync, the service is another one: "
                            "[0-9]+ added, [0-9]+ changed, [0-9]+ removed")));
    EXPECT_EQ(watch.End(SIGTERM), 0);
    EXPECT_EQ(Count(watch.Output(), "TblProbeObj"), 0u);
    EXPECT_EQ(service.Stop(), 0);
}

TEST(QdbWatch, BeginsWithWhatIsThereAndMarksLosses)
{
    const PrivateBus bus;
    ServiceProcess service(Modules());
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    Program people = StartQdb(Watch(service, {"TblMemoryInfo", "--all"}));
    Program programs = StartQdb(
        Watch(service, {"TblMemoryInfo", "TblProbeObj", "--all", "--json"}));
    ASSERT_TRUE(people.WaitFor("qdb: watching\n"));
    ASSERT_TRUE(programs.WaitFor("qdb: watching\n"));
    EXPECT_TRUE(people.WaitForLine(
        kTime + std::string("TblMemoryInfo 4096 Present DIMM0")));
    EXPECT_EQ(Count(people.Output(), " Present "), 2u);
    EXPECT_EQ(Count(programs.Output(), "{\"kind\": \"Present\""), 4u);
    EXPECT_EQ(Count(programs.Output(), "{\"kind\": \"Ready\"}\n"), 1u);

    service.SetSpeed(2933);
    EXPECT_TRUE(people.WaitFor("-> 2933"));
    EXPECT_TRUE(programs.WaitForLine(
        R"(\{"kind": "Changed", "table": "TblMemoryInfo", "oid": 4096, )"
        R"("row": \{.*"Speed": 2933.*\}, "changed": \{.*"Speed": 2933.*\}, )"
        R"("previous": \{.*"Speed": 0.*\}\})"));

    // Serials of one sender's signals that don't follow each other.
    const BusSender sender;
    for (int i = 0; i < 2; ++i)
    {
        sender.Emit("/com/vexo/tarnu/qdb/changeeventnotify",
                    "com.vexo.tarnu.qdb.changeeventnotify",
                    "Vexo_qdb_Resource_Removed", "s", "{}");
        sender.Call("/", "org.freedesktop.DBus", "GetId");
    }
    EXPECT_TRUE(people.WaitForLine(
        kTime + std::string("resync, signals were lost: 0 added, 0 changed, "
                            "0 removed")));
    EXPECT_TRUE(programs.WaitForLine(
        R"(\{"kind": "Resync", "reason": "lost-signals", "added": 0, )"
        R"("changed": 0, "removed": 0\})"));
    EXPECT_EQ(people.End(SIGINT), 0);
    EXPECT_EQ(programs.End(SIGTERM), 0);
    EXPECT_EQ(service.Stop(), 0);
}

TEST(QdbWatch, ShowsThePipe)
{
    const PrivateBus bus;
    ServiceOptions options = Modules();
    options.pipe = true;
    ServiceProcess service(options);
    Program watch = StartQdb(Watch(
        service, {"TblMemoryInfo", "--json", "--pipe", service.Root().Pipe()}));
    ASSERT_TRUE(watch.WaitFor("qdb: waiting for the mirror\n"));
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    service.SetSpeed(2933);
    EXPECT_TRUE(watch.WaitForLine(R"(\{"kind": "Pipe", "table": )"
                                  R"("TblMemoryInfo", "rowid": [0-9]+, )"
                                  R"("operation": "update"\})"));
    EXPECT_EQ(watch.End(SIGTERM), 0);
    EXPECT_EQ(service.Stop(), 0);
}

// Although there is nothing to write.
TEST(QdbWatch, EndsWithItsReader)
{
    const PrivateBus bus;
    const TempRoot root;
    root.MakeDatabase();
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    Program watch = StartQdb({"watch", "--database", root.Database()}, ends[1]);
    close(ends[1]);
    EXPECT_TRUE(watch.WaitFor("qdb: waiting for the mirror\n"));
    close(ends[0]);
    EXPECT_EQ(watch.End(0), 0);
}

} // namespace
} // namespace qdb::test
