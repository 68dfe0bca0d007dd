// The examples for readers of the mirror, as they are told to run them: against
// the real service, on a bus of their own.

#include "db/statement_ptr.h"
#include "tests/support/private_bus.h"
#include "tests/support/program.h"
#include "tests/support/service_process.h"
#include "tests/support/text.h"
#include "tools/qdb/statistics.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

namespace qdb::test
{
namespace
{

using Rows = std::map<std::string, std::string>; // OID to speed

// What has to be found, as regular expressions, in what an example prints from
// a step on.
struct Story
{
    std::string name;
    std::vector<std::string> command;
    std::string atFirst;
    std::string added;
    std::string changed;
    std::string removed;
};

std::vector<Story> Stories()
{
    const std::string four = "4096 \\d+; 4097 \\d+; 4098 \\d+; ";
    std::vector<Story> stories = {
        // clang-format off
        {"copy", {ExampleProgram("copy")}, four + "\n", four + "5000 \\d+; \n",
         "4096 2933; 4097 \\d+; 4098 \\d+; 5000 \\d+; \n", "4096 2933; 4097 \\d+; 4098 \\d+; \n"},
        {"follow_poll", {ExampleProgram("follow_poll")},
         "added 4098 \\d+\n", "added 5000 \\d+\n", "changed 4096 2933\n", "removed 5000 "},
        {"follow_sd_event", {ExampleProgram("follow_sd_event")},
         "added 4098\n", "added 5000\n", "changed 4096.* Speed \\S+->2933", "removed 5000\n"},
        {"watch", {SourceOf("client/examples/watch.sh")},
         "> 4098\\|\\d+\n", "> 5000\\|\\d+\n", "< 4096\\|\\d+\n(.*\n)*> 4096\\|2933\n", "< 5000\\|\\d+\n"},
        // clang-format on
    };
    if (!Python().empty())
    {
        stories.push_back({"follow", PythonCommand("client/examples/follow.py"),
                           "added 4098 \\d+\n", "added 5000 \\d+\n",
                           "changed 4096 2933\n", "removed 5000 "});
    }
    return stories;
}

TEST(Examples, ShowWhatIsAddedChangedAndRemoved)
{
    const PrivateBus bus;
    ServiceProcess service({.scenario = Server(3)});
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    const std::vector<Story> stories = Stories();
    std::vector<std::unique_ptr<Program>> examples;
    for (const Story &story : stories)
    {
        examples.push_back(Follow(story.command, service));
    }
    const struct
    {
        const char *command;
        std::string Story::*expected;
    } steps[] = {
        {nullptr, &Story::atFirst},
        {R"({"op":"create","type":"0xE1","oid":5000,"parents":[1],"values":{"Key":"DIMM9","Speed":1}})",
         &Story::added},
        {R"({"op":"set","oid":4096,"values":{"Speed":2933}})", &Story::changed},
        {R"({"op":"delete","oids":[5000]})", &Story::removed},
    };
    std::vector<size_t> seen(stories.size());
    for (const auto &step : steps)
    {
        if (step.command != nullptr)
        {
            service.Command(step.command);
        }
        for (size_t i = 0; i < stories.size(); ++i)
        {
            EXPECT_TRUE(WaitUntil(
                [&]
                {
                    return IsIn(examples[i]->Output().substr(seen[i]),
                                stories[i].*step.expected);
                }))
                << stories[i].name << ", "
                << (step.command == nullptr ? "at first" : step.command)
                << ":\n"
                << examples[i]->Output();
            seen[i] = examples[i]->Output().size();
        }
    }
}

// What is left of a follower's lines, "what OID speed". Each must fit what was
// told before it.
Rows Applied(const std::string &output)
{
    Rows rows;
    std::istringstream lines(output.substr(0, output.rfind('\n') + 1));
    std::string what;
    std::string oid;
    std::string speed;
    while (lines >> what >> oid >> speed)
    {
        const bool isThere = rows.contains(oid);
        if (what == "added" || what == "changed")
        {
            EXPECT_EQ(isThere, what == "changed") << output;
            rows[oid] = speed;
        }
        else if (what == "removed")
        {
            EXPECT_TRUE(isThere) << output;
            rows.erase(oid);
        }
    }
    return rows;
}

// The copy that was printed last.
Rows Printed(const std::string &output)
{
    const size_t end = output.rfind('\n');
    const size_t before = end == 0 ? end : output.rfind('\n', end - 1);
    Rows rows;
    if (end != std::string::npos)
    {
        const size_t begin = before == std::string::npos ? 0 : before + 1;
        std::istringstream pairs(output.substr(begin, end - begin));
        std::string oid;
        std::string speed;
        while (pairs >> oid && std::getline(pairs, speed, ';'))
        {
            rows[oid] = speed.substr(1);
        }
    }
    return rows;
}

// The table itself.
Rows Stored(const ServiceProcess &service)
{
    Rows rows;
    for (const std::string &row : Query(service.Root().Database(),
                                        "SELECT OID, Speed FROM TblMemoryInfo"))
    {
        const size_t bar = row.find('|');
        rows[row.substr(0, bar)] = row.substr(bar + 1);
    }
    return rows;
}

void Begin(ServiceProcess &service, const std::string &scenario)
{
    // Readiness as the one before has left it.
    std::filesystem::remove(service.Root().Path() + "/state.json");
    service.Root().MakeDatabase();
    std::ofstream(service.Root().Path() + "/scenario.json") << scenario;
    service.Start();
    EXPECT_TRUE(service.WaitReady());
}

// One more object of a scenario. Without a key and a parent the service would
// make its row anew every few seconds.
std::string Module(int oid, int speed)
{
    return R"({"type":"0xE1","oid":)" + std::to_string(oid) +
           R"(,"parents":[1],"values":{"Key":"More","Speed":)" +
           std::to_string(speed) + "}},";
}

// Keeps the database until the service has met that.
void HoldDatabase(const ServiceProcess &service)
{
    const auto refusals = [&]
    {
        return tool::ReadStatistics(service.Root().Statistics())
            .value()
            .Sum("database_refusals");
    };
    sqlite3 *opened = nullptr;
    sqlite3_open(service.Root().Database().c_str(), &opened);
    const ConnectionPtr holder(opened);
    sqlite3_busy_timeout(opened, kDeadlineMs);
    EXPECT_EQ(
        sqlite3_exec(opened, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr),
        SQLITE_OK);
    const uint64_t before = refusals();
    service.SetSpeed(1);
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            return refusals() > before;
        }));
    sqlite3_exec(opened, "COMMIT", nullptr, nullptr, nullptr);
}

TEST(Examples, StayRightWhateverHappens)
{
    const struct
    {
        std::string name;
        std::vector<std::string> command;
        Rows (*copy)(const std::string &);
    } followers[] = {
        {"copy", {ExampleProgram("copy")}, Printed},
        {"follow_poll", {ExampleProgram("follow_poll")}, Applied},
        {"follow", PythonCommand("client/examples/follow.py"), Applied},
    };
    // What the daemon keeps for a reader that stalls, and more changes than fit
    // into that and a socket.
    constexpr size_t kHeld = 1 << 16;
    constexpr int kTooMany = 600;
    PrivateBus bus(kHeld);
    ServiceProcess service({.database = false});
    std::vector<std::unique_ptr<Program>> examples;
    for (const auto &follower : followers)
    {
        examples.push_back(follower.command[0].empty()
                               ? nullptr
                               : Follow(follower.command, service));
    }
    // Tells whether anything was lost.
    const Program watch =
        StartQdb({"watch", "--database", service.Root().Database()});
    const auto signalAll = [&](int number)
    {
        watch.Signal(number);
        for (const auto &example : examples)
        {
            if (example != nullptr)
            {
                example->Signal(number);
            }
        }
    };
    int speed = 2000;
    const auto change = [&](int times)
    {
        for (int i = 0; i < times; ++i)
        {
            service.SetSpeed(++speed);
            EXPECT_TRUE(service.WaitForSpeed(speed));
        }
    };
    const struct
    {
        const char *what;
        std::function<void()> happen;
    } happenings[] = {
        {"a first life",
         [&]
         {
             Begin(service, Server(3));
         }},
        {"readers that stall",
         [&]
         {
             signalAll(SIGSTOP);
             change(kTooMany);
             signalAll(SIGCONT);
             // A loss is seen by the signal after it, and that is lost, too,
             // as long as the reader hasn't made room for it.
             EXPECT_TRUE(WaitUntil(
                 [&]
                 {
                     change(1);
                     return IsIn(watch.Output(), "resync, signals were lost");
                 }));
         }},
        {"a database that others hold",
         [&]
         {
             HoldDatabase(service);
         }},
        // With other objects, some of them under the OIDs of before.
        {"a service that is killed",
         [&]
         {
             service.Signal(SIGKILL);
             EXPECT_EQ(service.WaitExit(), 128 + SIGKILL);
             Begin(service, Server(2, "", Module(7000, 3200)));
         }},
        {"a bus that is started anew",
         [&]
         {
             bus.Kill();
             EXPECT_EQ(service.Stop(), 0);
             bus.Restart();
             Begin(service, Server(1, "", Module(4098, 4800)));
         }},
    };
    for (const auto &[what, happen] : happenings)
    {
        SCOPED_TRACE(what);
        happen();
        change(1);
        const Rows stored = Stored(service);
        EXPECT_GE(stored.size(), 2U);
        for (size_t i = 0; i < examples.size(); ++i)
        {
            EXPECT_TRUE(examples[i] == nullptr ||
                        WaitUntil(
                            [&]
                            {
                                return followers[i].copy(
                                           examples[i]->Output()) == stored;
                            }))
                << followers[i].name << ":\n"
                << examples[i]->Output();
        }
    }
}

TEST(Examples, StandInTheDocumentAsTheyAre)
{
    const std::string document = FileText(SourceOf("docs/consumers.md"));
    for (const auto &[language, file] :
         {std::pair("cpp", "client/examples/copy.cpp"),
          std::pair("python", "client/examples/follow.py")})
    {
        const std::string source = FileText(SourceOf(file));
        ASSERT_FALSE(source.empty()) << file;
        EXPECT_NE(document.find(std::string("```") + language + "\n" + source +
                                "```\n"),
                  std::string::npos)
            << file << " differs from what the document shows";
    }
}

} // namespace
} // namespace qdb::test
