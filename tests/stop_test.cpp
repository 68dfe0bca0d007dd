// A stop in the real process when something is in its way: a database that
// another process holds, a call of the platform that hangs, no memory, no
// threads.

#include "tests/support/service_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace qdb::test
{
namespace
{

// Ten seconds are promised; the rest is for a machine that is busy.
constexpr int kPatienceMs = 15000;

constexpr int kKilled = 128 + SIGTERM;

constexpr char kInOrder[] = "Main exit: closed DB";
constexpr char kLeft[] = "a stop meets calls that don't come back";

// With `more` members of the scenario.
std::string Scenario(const std::string &more = "")
{
    return "{" + more +
           R"("objects":[{"type":"0xE1","oid":{"base":4096,"step":1},)"
           R"("parents":[1],"values":{"Key":"DIMM{i}"},"repeat":40}]})";
}

std::string Set(int oid)
{
    return R"({"op":"set","oid":)" + std::to_string(oid) +
           R"(,"values":{"Speed":2933}})";
}

struct End
{
    int status = 0;
    int attribute = 0;
    const char *line = kLeft; // in the log; "": any
};

void ExpectEnd(ServiceProcess &service, const End &end)
{
    EXPECT_EQ(service.WaitExit(kPatienceMs), end.status);
    EXPECT_EQ(service.ReadyAttribute(), end.attribute);
    EXPECT_NE(service.Log().find(end.line), std::string::npos) << service.Log();
}

TEST(Stop, WaitsForAHeldDatabaseNoLonger)
{
    ServiceProcess service({.scenario = Scenario()});
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    sqlite3 *other = nullptr;
    ASSERT_EQ(sqlite3_open(service.Root().Database().c_str(), &other), 0);
    sqlite3_busy_timeout(other, kDeadlineMs);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr),
              0);
    for (int oid = 4096; oid < 4136; ++oid)
    {
        service.Command(Set(oid));
    }
    ASSERT_TRUE(service.WaitForLog("StatusCheck:Retry"));
    service.Signal(SIGTERM);
    ExpectEnd(service, {.line = kInOrder});
    sqlite3_close(other);
}

std::string Hang(const char *call, const char *more = "")
{
    return std::string(R"({"op":"delay","microseconds":"hang","call":")") +
           call + R"(")" + more + "}";
}

bool AwaitHang(const ServiceProcess &service, const std::string &call)
{
    return WaitUntil(
        [&]
        {
            const std::string reply =
                service.Command(R"({"op":"hanging","call":")" + call + "\"}");
            return reply.find(R"("count":)") != std::string::npos &&
                   reply.find(R"("count":0)") == std::string::npos;
        });
}

struct Obstacle
{
    const char *name;
    std::string delay; // from the start; "": becomes ready first
    std::vector<std::string> commands;
    const char *call; // that hangs before the signal; NULL: behind it
    End end = {};
    std::string variable = "QDB_TEST_CLOSE=0";
};

std::vector<Obstacle> Obstacles()
{
    const std::string create = R"({"op":"create","type":"0xE1","oid":9000})";
    const std::string destroy = R"({"op":"delete","oids":[4100,4101,4102]})";
    const char *const fetch = "ZOILGetObjByOID";
    const char *const list = "ZOILListChildOIDByType";
    const char *const remove = "ZOILRemoveEventListener";
    const char *const attribute = "CfgSetAttributeInt";
    // clang-format off
    return {
        // Nothing hangs; all the hundred attempts to close are made.
        {"a database that stays open", "", {}, nullptr, {.status = 5, .line = "Main exited"},
         "QDB_TEST_CLOSE=5"},
        {"main, before it takes signals", Hang(attribute, R"(,"times":1)"), {}, attribute},
        {"main in population", Hang(fetch, R"(,"oid":4100)"), {}, fetch},
        {"a worker", "", {Hang(fetch), Set(4096)}, fetch},
        {"the callback", "", {Hang(fetch), destroy}, fetch},
        {"the callback beside a worker", "", {Hang("ZOILListParentOID"), create, destroy},
         "ZOILListParentOID"},
        {"a reload thread", "", {Hang("client_get_objects"), R"({"op":"detach"})"},
         "client_get_objects"},
        {"whoever locks the queue", "", {Hang("ZOMutexLock"), Set(4096)}, "ZOMutexLock"},
        {"whoever logs", "", {Hang("vexoprintf")}, nullptr, {.line = ""}},
        // The workers get their stop records all the same.
        {"the stop thread", "", {Hang(remove)}, nullptr, {.line = "ACCEPT THREAD 10 ENDED"}},
        {"main at the end", "", {Hang(attribute)}, nullptr, {.attribute = 1, .line = kInOrder}},
        {"everything", "", {Hang(fetch), Hang(list), Hang(remove), Hang(attribute), Set(4096)},
         fetch, {.attribute = 1, .line = ""}},
        // Its next pass is up to five seconds away.
        {"the NC thread", "", {Hang(list)}, list},
    };
    // clang-format on
}

// A thread that is left behind is none that was forgotten.
std::string LeavesThreads()
{
    const char *options = std::getenv("TSAN_OPTIONS");
    return "TSAN_OPTIONS=" + std::string(options == nullptr ? "" : options) +
           ":report_thread_leaks=0";
}

// Side by side, since each has its seconds to wait.
TEST(Stop, LeavesBehindWhatHangs)
{
    const std::vector<Obstacle> obstacles = Obstacles();
    std::vector<std::unique_ptr<ServiceProcess>> services;
    for (const Obstacle &o : obstacles)
    {
        const std::string delays =
            o.delay.empty() ? "" : R"("delays":[)" + o.delay + "],";
        services.push_back(std::make_unique<ServiceProcess>(
            ServiceOptions{.scenario = Scenario(delays),
                           .variables = {o.variable, LeavesThreads()}}));
        services.back()->Start();
    }
    for (size_t i = 0; i < obstacles.size(); ++i)
    {
        SCOPED_TRACE(obstacles[i].name);
        ASSERT_TRUE(!obstacles[i].delay.empty() || services[i]->WaitReady());
        for (const std::string &command : obstacles[i].commands)
        {
            EXPECT_NE(services[i]->Command(command), "");
        }
        EXPECT_TRUE(obstacles[i].call == nullptr ||
                    AwaitHang(*services[i], obstacles[i].call));
        services[i]->Signal(SIGTERM);
    }
    for (size_t i = 0; i < obstacles.size(); ++i)
    {
        SCOPED_TRACE(obstacles[i].name);
        ExpectEnd(*services[i], obstacles[i].end);
    }
}

TEST(Stop, NeedsNoMemory)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer keeps allocations for itself";
#endif
    ServiceProcess service({.scenario = Scenario()});
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    service.Signal(SIGUSR1);
    ASSERT_TRUE(service.WaitForLog("no memory from here on"));
    service.Signal(SIGTERM);
    ExpectEnd(service, {.line = kInOrder});
}

// Which threads can't be made, by the order of their starts.
TEST(Stop, ComesAboutWhateverThreadIsMissing)
{
    struct Case
    {
        int first;
        int last;
        const char *line;
        End end = {.line = kInOrder};
    };
    std::vector<Case> cases = {
        {1, 1, "no thread to watch over a stop: 11"},
        {2, 2, "no thread for SIGTERM, which ends", {kKilled, 1, ""}},
        {3, 3, "the signal thread can't be started: 11"},
        {4, 4, "the bus service can't be started: 11"},
        {15, 15, "the NC thread can't be started: 11"},
        {16, 16, "the corruption thread can't be started: 11"},
        {5, 13, "a worker can't be started: 11"},
        {5, 14, "not a single worker", {.status = 1, .line = kInOrder}},
    };
    for (int worker = 5; worker <= 14; ++worker)
    {
        cases.push_back({worker, worker, "a worker can't be started: 11"});
    }
    std::vector<std::string> variables;
    std::vector<std::unique_ptr<ServiceProcess>> services;
    for (const Case &c : cases)
    {
        variables.push_back("QDB_TEST_NO_THREADS=" + std::to_string(c.first) +
                            "-" + std::to_string(c.last));
        services.push_back(std::make_unique<ServiceProcess>(ServiceOptions{
            .scenario = Scenario(), .variables = {variables.back()}}));
        services.back()->Start();
    }
    for (size_t i = 0; i < cases.size(); ++i)
    {
        SCOPED_TRACE(variables[i]);
        const ServiceProcess &service = *services[i];
        EXPECT_TRUE(service.WaitForLog(cases[i].line));
        if (cases[i].end.status != EXIT_FAILURE)
        {
            EXPECT_TRUE(service.WaitReady());
            service.Command(Set(4096));
            EXPECT_TRUE(WaitUntil(
                [&]
                {
                    return QueryValue(service.Root().Database(),
                                      "SELECT Speed FROM TblMemoryInfo WHERE "
                                      "OID = 4096") == "2933";
                }));
            service.Signal(SIGTERM);
        }
    }
    for (size_t i = 0; i < cases.size(); ++i)
    {
        SCOPED_TRACE(variables[i]);
        ExpectEnd(*services[i], cases[i].end);
    }
}

} // namespace
} // namespace qdb::test
