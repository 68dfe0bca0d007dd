// SIGTERM in the real process: at any moment, in the middle of work, and when
// something is in its way: a database that another process holds, a call of the
// platform that hangs, no memory, no threads.
//
// QDB_TEST_STOPS: how many stops at random moments; 16 unless given.

#include "tests/support/change_listener.h"
#include "tests/support/private_bus.h"
#include "tests/support/service_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

namespace qdb::test
{
namespace
{

constexpr char kInOrder[] = "Main exit: closed DB";
constexpr char kLeft[] = "a stop meets calls that don't come back";

void SleepUpTo(int milliseconds)
{
    // Seeded by the test's own random seed, which gtest prints and takes.
    static std::mt19937 engine(static_cast<unsigned>(
        ::testing::UnitTest::GetInstance()->random_seed()));
    std::this_thread::sleep_for(std::chrono::milliseconds(
        std::uniform_int_distribution<int>(0, milliseconds)(engine)));
}

// Each run takes a new random moment, from the first log line to some time
// after readiness.
TEST(Stop, AtAnyMomentEndsInOrder)
{
    const char *asked = std::getenv("QDB_TEST_STOPS");
    const int runs = asked == nullptr ? 16 : std::atoi(asked);
    const auto stop = [](ServiceProcess &service)
    {
        EXPECT_TRUE(service.WaitForLog("QDB is getting ready"));
        SleepUpTo(1600);
        service.Signal(SIGTERM);
    };
    for (int run = 0; run < runs && !::testing::Test::HasFailure(); ++run)
    {
        Live({{std::to_string(run),
               {.scenario = Server(400)},
               stop,
               {"Main exited"}}});
    }
}

TEST(Stop, UnderWorkEndsInOrder)
{
    std::string oids = "4096";
    for (int oid = 4097; oid < 8096; ++oid)
    {
        oids += "," + std::to_string(oid);
    }
    for (const std::string &work :
         {std::string(
              R"({"op":"churn","count":1000,"rate":0,"types":["0x16"]})"),
          R"({"op":"delete","oids":[)" + oids + "]}",
          std::string(R"({"op":"detach"})")})
    {
        std::jthread command;
        const auto stop = [&](ServiceProcess &service)
        {
            EXPECT_TRUE(service.WaitReady());
            // The command may wait for what the stop interrupts.
            command = std::jthread(
                [&work, path = service.Root().Path() + "/control"]
                {
                    CommandAt(path, work);
                });
            SleepUpTo(300);
            service.Signal(SIGTERM);
            service.Signal(SIGTERM);
        };
        Live({{work.substr(0, 20),
               {.scenario = Server(4000), .logLevel = 3},
               stop,
               {}}});
    }
}

size_t ThreadsOf(pid_t pid)
{
    const std::filesystem::directory_iterator tasks(
        "/proc/" + std::to_string(pid) + "/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// What the daemon didn't take in time waits in the service.
TEST(Stop, LetsTheLastSignalsOut)
{
    constexpr int kChanges = 60; // more than the socket holds
    constexpr size_t kEndingThreads = 12;
    const std::string others = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    const PrivateBus bus;
    const ChangeListener listener;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", others.c_str(), 1);
    const auto stop = [&](ServiceProcess &service)
    {
        EXPECT_TRUE(service.WaitReady());
        bus.Freeze();
        for (int i = 0; i < kChanges; ++i)
        {
            const std::string name =
                std::to_string(i) + std::string(200000, 'x');
            service.Command(R"({"op":"set","oid":4096,"values":)"
                            R"({"friendlyFQDD":")" +
                            name + "\"}}");
            // One by one, or two would become one change.
            EXPECT_TRUE(WaitUntil(
                [&]
                {
                    return QueryValue(service.Root().Database(),
                                      "SELECT friendlyFQDD FROM "
                                      "TblMemoryInfo") == name;
                }));
        }
        const size_t threads = ThreadsOf(service.Pid());
        service.Signal(SIGTERM);
        // The workers and the bus thread have gone then, and only the end of
        // the process can still send what waits.
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                return ThreadsOf(service.Pid()) <= threads - kEndingThreads;
            }));
        bus.Thaw();
        EXPECT_EQ(listener.WaitFor(kChanges).size(), size_t{kChanges});
    };
    Live({{"",
           {.scenario = Server(1), .logLevel = 2, .busAddress = bus.Address()},
           stop,
           {}}});
}

// --- What is in the way ------------------------------------------------------

// As another process that doesn't let go of it.
void HoldTheDatabase(const ServiceProcess &service, sqlite3 **pOther)
{
    EXPECT_EQ(sqlite3_open(service.Root().Database().c_str(), pOther), 0);
    sqlite3_busy_timeout(*pOther, kDeadlineMs);
    EXPECT_EQ(
        sqlite3_exec(*pOther, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), 0);
    for (int oid = 4096; oid < 4136; ++oid)
    {
        service.Command(R"({"op":"set","oid":)" + std::to_string(oid) +
                        R"(,"values":{"Speed":2933}})");
    }
    EXPECT_TRUE(service.WaitForLog("StatusCheck:Retry"));
}

// A sanitizer keeps allocations for itself, and leaves them to the service.
void TakeMemoryAway(ServiceProcess &service)
{
    EXPECT_TRUE(service.WaitReady());
    service.Signal(SIGUSR1);
    EXPECT_TRUE(service.WaitForLog("no memory from here on"));
    service.Signal(SIGTERM);
}

std::string Hang(const char *call, const char *more = "")
{
    return std::string(R"({"op":"delay","microseconds":"hang","call":")") +
           call + R"(")" + more + "}";
}

// Ready unless it hangs from the start; then the commands, SIGTERM once the
// call hangs, or at once without one.
Happening HangIn(const char *call, const std::vector<std::string> &commands)
{
    return [=](ServiceProcess &service)
    {
        EXPECT_TRUE(commands.empty() || service.WaitReady());
        for (const std::string &command : commands)
        {
            EXPECT_NE(service.Command(command), "");
        }
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                const std::string reply = service.Command(
                    std::string(R"({"op":"hanging","call":")") + call + "\"}");
                return *call == '\0' ||
                       (reply.find(R"("count":)") != std::string::npos &&
                        reply.find(R"("count":0)") == std::string::npos);
            }));
        service.Signal(SIGTERM);
    };
}

ServiceOptions Faulty(const std::string &variable)
{
    return {.scenario = Server(40), .variables = {variable}};
}

// A thread that is left behind is none that was forgotten.
ServiceOptions Hanging(const std::string &delay = "")
{
    const char *options = std::getenv("TSAN_OPTIONS");
    return {
        .scenario = Server(40, "\"delays\":[" + delay + "],"),
        .variables = {"TSAN_OPTIONS=" +
                      std::string(options == nullptr ? "" : options) +
                      ":report_thread_leaks=0"},
    };
}

TEST(Stop, ComesAboutWhateverIsInItsWay)
{
    sqlite3 *other = nullptr;
    const auto hold = [&](ServiceProcess &service)
    {
        EXPECT_TRUE(service.WaitReady());
        HoldTheDatabase(service, &other);
        service.Signal(SIGTERM);
    };
    const std::string create = R"({"op":"create","type":"0xE1","oid":9000})";
    const std::string destroy = R"({"op":"delete","oids":[4100,4101,4102]})";
    const std::string detach = R"({"op":"detach"})";
    const std::string set = R"({"op":"set","oid":4096,"values":{"Speed":1}})";
    const char *const fetch = "ZOILGetObjByOID";
    const char *const list = "ZOILListChildOIDByType";
    const char *const parents = "ZOILListParentOID";
    const char *const remove = "ZOILRemoveEventListener";
    const char *const groups = "client_get_objects";
    const char *const attribute = "CfgSetAttributeInt";
    const char *const lock = "ZOMutexLock";
    // clang-format off
    Live({
        {"a database that others hold", Hanging(), hold, {kInOrder}},
        {"want of memory", Hanging(), TakeMemoryAway, {kInOrder}},
        // All the hundred attempts to close are made.
        {"a database that stays open", Faulty("QDB_TEST_CLOSE=5"), Serve, {"Main exited"}, SQLITE_BUSY},

        {"main, before it takes signals", Hanging(Hang(attribute, R"(,"times":1)")), HangIn(attribute, {}), {kLeft}},
        {"main in population", Hanging(Hang(fetch, R"(,"oid":4100)")), HangIn(fetch, {}), {kLeft}},
        {"a worker", Hanging(), HangIn(fetch, {Hang(fetch), set}), {kLeft}},
        {"the callback", Hanging(), HangIn(fetch, {Hang(fetch), destroy}), {kLeft}},
        {"the callback beside a worker", Hanging(), HangIn(parents, {Hang(parents), create, destroy}), {kLeft}},
        {"a reload thread", Hanging(), HangIn(groups, {Hang(groups), detach}), {kLeft}},
        {"whoever locks the queue", Hanging(), HangIn(lock, {Hang(lock), set}), {kLeft}},
        {"whoever logs", Hanging(), HangIn("", {Hang("vexoprintf")}), {}},
        // The workers get their stop records all the same.
        {"the stop thread", Hanging(), HangIn("", {Hang(remove)}), {"ACCEPT THREAD 10 ENDED"}},
        {"main at the end", Hanging(), HangIn("", {Hang(attribute)}), {kInOrder}, 0, 1},
        {"everything", Hanging(), HangIn(fetch, {Hang(fetch), Hang(list), Hang(remove), Hang(attribute), set}), {}, 0, 1},
        // Its next pass is up to five seconds away.
        {"the NC thread", Hanging(), HangIn(list, {Hang(list)}), {kLeft}},
    });
    // clang-format on
    sqlite3_close(other);
}

// By the order of the threads' starts.
TEST(Stop, ComesAboutWhateverThreadIsMissing)
{
    const auto detach = [](ServiceProcess &service)
    {
        EXPECT_TRUE(service.WaitReady());
        service.Command(R"({"op":"detach"})");
        // By then a worker has it: a stop takes the listener away first.
        EXPECT_TRUE(service.WaitForLog("Reload thread failed"));
        service.Signal(SIGTERM);
    };
    const auto end = [](ServiceProcess &) {};
    const auto without = [](const std::string &threads)
    {
        return Faulty("QDB_TEST_NO_THREADS=" + threads);
    };
    const std::string worker = "a worker can't be started: 11";
    // clang-format off
    Live({
        {"watch", without("1-1"), Serve, {"no thread to watch over a stop: 11", kInOrder}},
        {"stop", without("2-2"), Serve, {"no thread for SIGTERM, which ends"}, 128 + SIGTERM, 1},
        {"bus intake", without("3-3"), Serve, {"the signal thread can't be started: 11", kInOrder}},
        {"bus", without("4-4"), Serve, {"the bus service can't be started: 11", kInOrder}},
        {"first worker", without("5-5"), Serve, {worker, kInOrder}},
        {"last worker", without("14-14"), Serve, {worker, kInOrder}},
        {"all workers but one", without("5-13"), Serve, {worker, kInOrder}},
        {"all workers", without("5-14"), end, {"not a single worker", kInOrder}, EXIT_FAILURE},
        {"passes", without("15-15"), Serve, {"the NC thread can't be started: 11", kInOrder}},
        {"corruption", without("16-16"), Serve, {"the corruption thread can't be started: 11", kInOrder}},
        {"reload", without("17-17"), detach, {"Create Config Reload thread failed ret: 11", kInOrder}},
    });
    // clang-format on
}

} // namespace
} // namespace qdb::test
