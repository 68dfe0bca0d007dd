// qdb status over the life of a real service, and a service whose file can't be
// made.
#include "tests/support/private_bus.h"
#include "tests/support/program.h"
#include "tests/support/service_process.h"
#include "tests/support/text.h"
#include "tests/support/wait.h"
#include "tools/qdb/statistics.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace qdb::test
{
namespace
{

class QdbStatus : public testing::Test
{
  protected:
    static std::string Status(const ServiceProcess &service,
                              const std::string &options = "")
    {
        return Qdb("status --statistics " + service.Root().Statistics() + " " +
                   options);
    }

    // Waits until the status has all these texts.
    static void Expect(const ServiceProcess &service,
                       const std::string &options,
                       const std::vector<std::string> &texts)
    {
        std::string status;
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                status = Status(service, options);
                return std::ranges::all_of(texts,
                                           [&](const std::string &text)
                                           {
                                               return status.find(text) !=
                                                      std::string::npos;
                                           });
            }))
            << testing::PrintToString(texts) << "\n"
            << status;
    }

    PrivateBus bus_;
};

TEST_F(QdbStatus, FollowsALife)
{
    const struct
    {
        const char *command; // to the stand-in
        const char *options;
        std::vector<std::string> texts;
    } kSteps[] = {
        {"",
         "--json",
         {R"("running":true,"state":"live")",
          R"("types_filled":159,"types":159)", R"("bus_connected":1)",
          R"("signals_enabled":1)"}},
        {"", "--prometheus", {"quillondb_passes_total 2\n"}},
        {"", "", {"is live", "\npasses     "}},
        {R"({"op":"delay","microseconds":"hang","call":"ZOILGetObjByOID"})",
         "",
         {}},
        {R"({"op":"announce","event":3,"oids":[4096]})",
         "",
         {"1 let in, 1 busy", "1 workers at one event for longer"}},
        {R"({"op":"release"})", "", {"0 let in, 0 busy"}},
        {R"({"op":"detach"})", "", {"waits for the Data Manager", "exit 1"}},
        {R"({"op":"attach"})", "", {}},
        {R"({"op":"create","type":"0xE1","oid":9000})", "", {"is live"}},
        {"",
         "--json",
         {R"({"type":"detach","value":1})", R"("detached":null)"}},
    };
    ServiceOptions options;
    options.scenario = Server(3);
    ServiceProcess service(options);
    EXPECT_EQ(Status(service), "quillondb isn't running\nexit 3\n");
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    for (const auto &step : kSteps)
    {
        SCOPED_TRACE(step.command);
        if (*step.command != '\0')
        {
            service.Command(step.command);
        }
        Expect(service, step.options, step.texts);
    }
    EXPECT_EQ(service.Stop(), 0);
    Expect(service, "", {"isn't running; this is what it left", "exit 3"});
    Expect(service, "--json", {R"("state":"not_running")", R"("phase":3)"});
    const auto left = tool::ReadStatistics(service.Root().Statistics());
    ASSERT_TRUE(left.has_value());
    for (const char *figure :
         {"started", "phase_since", "pass_began", "pass_length"})
    {
        EXPECT_NE(left->Value(figure), 0U) << figure;
    }
}

// Prometheus itself has nothing to say against it.
TEST_F(QdbStatus, IsFitForPrometheus)
{
    if (OutputOf("command -v promtool").find("exit") != std::string::npos)
    {
        GTEST_SKIP() << "no promtool";
    }
    ServiceOptions options;
    options.scenario = Server(3);
    ServiceProcess service(options);
    service.Start();
    Serve(service);
    EXPECT_EQ(Status(service, "--prometheus | promtool check metrics 2>&1"),
              "");
}

// A stop while the tables are being filled leaves the rest of a list, and says
// so.
TEST_F(QdbStatus, AccountsForWhatAStopLeaves)
{
    ServiceOptions options;
    options.scenario = Server(
        5, R"("delays":[{"call":"ZOILGetObjByOID","microseconds":"hang"}],)");
    ServiceProcess service(options);
    service.Start();
    Expect(service, "", {"fills its tables: type", "exit 1"});
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            return service
                       .Command(R"({"op":"hanging","call":"ZOILGetObjByOID"})")
                       .find('1') != std::string::npos;
        }));
    service.Signal(SIGTERM);
    Expect(service, "", {" stops, "});
    service.Command(R"({"op":"release"})");
    EXPECT_EQ(service.WaitExit(), 0);
    Expect(service, "--prometheus",
           {R"(objects_total{road="population",fate="stopped"} 4)",
            R"(objects_arrived_total{road="population"} 5)"});
}

// What the service can't do without its file is nothing.
TEST_F(QdbStatus, GoesOnWithoutAFile)
{
    ServiceOptions options;
    options.scenario = Server(3);
    ServiceProcess service(options);
    std::filesystem::create_directory(service.Root().Statistics());
    service.Start();
    EXPECT_TRUE(service.WaitForLog("no statistics file: "));
    Serve(service);
    EXPECT_NE(Status(service).find("is no statistics file"), std::string::npos);
}

TEST_F(QdbStatus, SaysWhyNobodyIsTold)
{
    const struct
    {
        ServiceOptions options;
        std::string command;
        const char *text;
    } kCases[] = {
        {{.scenario = Server(3), .busAddress = "unix:path=/nowhere"},
         "",
         "tells of no change: no bus"},
        {{.scenario = Server(
              3,
              R"("faults":[{"call":"CfgSetAttributeInt","times":1000000,"status":5,"skip":1}],)")},
         "",
         "tells of no change: readiness is refused"},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.text);
        ServiceProcess service(c.options);
        service.Start();
        Expect(service, "", {c.text, "exit 1"});
        EXPECT_EQ(service.Stop(), 0);
    }
}

} // namespace
} // namespace qdb::test
