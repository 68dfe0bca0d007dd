// The real process: start-up, the ways it can be missing something, and its
// end. Every service here must end in order: status 0 within the limit of a
// stop, readiness withdrawn, and a clean bill from the sanitizers, which would
// change the status.

#include "tests/support/change_listener.h"
#include "tests/support/private_bus.h"
#include "tests/support/service_process.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

namespace qdb::test
{
namespace
{

// A server of `count` memory modules and as many probes.
std::string Scenario(int count)
{
    const std::string n = std::to_string(count);
    return R"({"objects":[{"type":"0xE1","oid":{"base":4096,"step":1},)"
           R"("parents":[1],"values":{"Key":"DIMM{i}"},"repeat":)" +
           n +
           R"(},{"type":"0x16","oid":{"base":65536,"step":1},)"
           R"("values":{"probeReading":20,"Key":"Probe{i}"},"repeat":)" +
           n + "}]}";
}

std::string OidList(int first, int count)
{
    std::string list;
    for (int i = 0; i < count; ++i)
    {
        list += (i == 0 ? "" : ",") + std::to_string(first + i);
    }
    return list;
}

int RandomMilliseconds(int limit)
{
    // Seeded by the test's own random seed, which gtest prints and takes.
    static std::mt19937 engine(static_cast<unsigned>(
        ::testing::UnitTest::GetInstance()->random_seed()));
    return std::uniform_int_distribution<int>(0, limit)(engine);
}

void ExpectOrderlyEnd(ServiceProcess &service, int status)
{
    EXPECT_EQ(status, 0) << service.Log().substr(
        service.Log().size() - std::min<size_t>(service.Log().size(), 6000));
    EXPECT_EQ(service.ReadyAttribute(), 0);
    EXPECT_NE(service.Log().find("Main exited"), std::string::npos);
}

TEST(Process, BecomesReadyAndEndsInOrder)
{
    ServiceProcess service({.scenario = Scenario(20)});
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    EXPECT_EQ(QueryValue(service.Root().Database(),
                         "SELECT count(*) FROM TblMemoryInfo"),
              "20");
    ExpectOrderlyEnd(service, service.Stop());
    // Its steps, in the order of the life of the process.
    const std::string log = service.Log();
    size_t at = 0;
    for (const char *line :
         {"QDB is getting ready. Disable sending Dbus events!!",
          "event listener added", "Client is attached.", "Opening DB.",
          "QDVDBInit() success.", "Entering OnLoadObjectsCreation",
          "OnLoadObjectsCreation total objects created: 40",
          "OnLoadRawObjectsUpdate: Exit", "Start thread: 1",
          "Start thread: 10, Status=0", "QDB is ready. Enable", "ACCEPT THREAD",
          "Main exit: closed DB", "Main exit: free globals", "Main exited"})
    {
        const size_t found = log.find(line, at);
        ASSERT_NE(found, std::string::npos) << line;
        at = found;
    }
}

// Readiness cannot be published until the fault is lifted, so that there is all
// the time in the world to catch a signal that should not be.
TEST(Process, SendsNoSignalBeforeReadiness)
{
    std::string scenario = Scenario(20);
    scenario.insert(1, R"("faults":[{"call":"CfgSetAttributeInt",)"
                       R"("status":5,"times":1000000,"skip":1}],)");
    ServiceProcess service({.scenario = scenario, .logLevel = 6});
    const ChangeListener listener;
    service.Start();
    ASSERT_TRUE(service.WaitForLog("CfgSetAttributeInt QDB_READY failed"));
    service.Command(R"({"op":"create","type":"0x17","oid":99})");
    // Its row is there long before it would be announced.
    EXPECT_TRUE(service.WaitForLog("CreateObj_17 Exit for OID: 99,status:0"));
    service.Command(
        R"({"op":"fault","call":"CfgSetAttributeInt","status":0,"times":0})");
    // The next event publishes readiness, and is the first to be announced.
    service.Command(R"({"op":"set","oid":4096,"values":{"Speed":2933}})");
    const std::vector<Change> changes = listener.WaitFor(1);
    ASSERT_EQ(changes.size(), 1u) << "a signal from before readiness";
    EXPECT_EQ(changes[0].member, "Vexo_qdb_Resource_Changed");
    EXPECT_NE(changes[0].json.find("\"Speed\": 2933"), std::string::npos);
    EXPECT_EQ(service.ReadyAttribute(), 1);
    ExpectOrderlyEnd(service, service.Stop());
}

// What may be missing at the start, and what the log says of it.
TEST(Process, LivesWithWhatIsMissing)
{
    struct
    {
        const char *name;
        ServiceOptions options;
        const char *line;
        int rows; // of TblMemoryInfo; -1: no such table
    } cases[] = {
        {"no bus",
         {.scenario = Scenario(3), .busAddress = "unix:path=/nonexistent"},
         "Failed to connect to bus",
         3},
        {"no database file",
         {.scenario = Scenario(3), .database = false},
         "sqlite3_prepare_v2 Error: 1",
         -1},
        {"no telemetry pipe",
         {.scenario = Scenario(3)},
         "QDB-TDB pipe open failed with error: 2",
         3},
        {"a telemetry pipe without a reader",
         {.scenario = Scenario(3), .pipe = true},
         "QDB-TDB pipe open failed with error: 6",
         3},
    };
    for (auto &c : cases)
    {
        SCOPED_TRACE(c.name);
        ServiceProcess service(c.options);
        service.Start();
        EXPECT_TRUE(service.WaitReady());
        EXPECT_TRUE(service.WaitForLog(c.line));
        EXPECT_EQ(QueryValue(service.Root().Database(),
                             "SELECT count(*) FROM TblMemoryInfo"),
                  c.rows < 0 ? "no such table: TblMemoryInfo"
                             : std::to_string(c.rows));
        ExpectOrderlyEnd(service, service.Stop());
    }
}

TEST(Process, EndsWhenTheDatabaseCannotBeOpened)
{
    ServiceProcess service({.database = false});
    std::filesystem::create_directory(service.Root().Database());
    service.Start();
    ExpectOrderlyEnd(service, service.WaitExit(kStopLimitMs));
    EXPECT_NE(service.Log().find("QDVDBInit() Error."), std::string::npos);
}

// Overwrites all pages but the first with random bytes, and counts a change, so
// that nobody goes on with what is cached.
void Corrupt(const std::string &database)
{
    constexpr size_t kPage = 4096;
    constexpr std::streamoff kChangeCounter = 27;
    std::fstream file(database,
                      std::ios::binary | std::ios::in | std::ios::out);
    file.seekg(kChangeCounter);
    const char changes = static_cast<char>(file.get() + 1);
    file.seekp(kChangeCounter);
    file.put(changes);
    file.seekp(kPage);
    std::mt19937 engine(7);
    const size_t size = std::filesystem::file_size(database);
    for (size_t at = kPage; at < size; ++at)
    {
        file.put(static_cast<char>(engine()));
    }
}

TEST(Process, LeavesWithStatusOneWhenPopulationMeetsACorruptDatabase)
{
    ServiceProcess service({.scenario = Scenario(3)});
    Corrupt(service.Root().Database());
    service.Start();
    EXPECT_EQ(service.WaitExit(), 1);
    EXPECT_NE(service.Log().find("OnLoadObjectsCreation() returns ret=11"),
              std::string::npos);
    EXPECT_EQ(service.ReadyAttribute(), 0);
}

TEST(Process, EndsInOrderWhenTheDatabaseBecomesCorrupt)
{
    const struct
    {
        const char *name;
        const char *command;
        bool isPass; // a pass meets it, which tells so
    } kCases[] = {
        {"a worker", R"({"op":"set","oid":4096,"values":{"Speed":1000}})",
         false},
        {"the object-type reload of 0xEB",
         R"({"op":"set","oid":235,"values":{"version":"2"},"announce":false})",
         true},
        {"the object-type reload of 0xEC",
         R"({"op":"set","oid":236,"values":{"protocol":"2"},"announce":false})",
         true},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        std::string scenario = Scenario(20);
        scenario.insert(
            scenario.find('[') + 1,
            R"({"type":"0xEB","oid":235},{"type":"0xEC","oid":236},)");
        ServiceProcess service({.scenario = scenario});
        service.Start();
        ASSERT_TRUE(service.WaitReady());
        ASSERT_TRUE(service.WaitForLog("end of loop"));
        Corrupt(service.Root().Database());
        service.Command(c.command);
        ExpectOrderlyEnd(service, service.WaitExit(kStopLimitMs));
        const std::string log = service.Log();
        EXPECT_NE(log.find("handle_QuillonDB_Sqlite_corrupt sqlite corrupt "
                           "error occured"),
                  std::string::npos);
        EXPECT_EQ(log.find("sempost issued 11") != std::string::npos, c.isPass);
    }
}

// A write to a pipe whose reader has gone would end the process by SIGPIPE.
TEST(Process, GoesOnWithoutTheTelemetryReader)
{
    ServiceProcess service({.scenario = Scenario(3), .pipe = true});
    {
        PipeReader reader(service.Root().Pipe());
        service.Start();
        ASSERT_TRUE(service.WaitReady());
        EXPECT_FALSE(reader.Take().empty());
    }
    service.Command(R"({"op":"set","oid":4096,"values":{"Speed":2933}})");
    EXPECT_TRUE(service.WaitForLog("RefreshObj_E1 Exit for OID: 4096"));
    EXPECT_EQ(QueryValue(service.Root().Database(),
                         "SELECT Speed FROM TblMemoryInfo WHERE OID = 4096"),
              "2933");
    ExpectOrderlyEnd(service, service.Stop());
}

TEST(Process, GoesOnWithoutTheBus)
{
    PrivateBus bus;
    ServiceProcess service(
        {.scenario = Scenario(3), .busAddress = bus.Address()});
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    bus.Kill();
    service.Command(R"({"op":"set","oid":4096,"values":{"Speed":2933}})");
    EXPECT_TRUE(service.WaitForLog("Failed to emit signal sd_bus_send"));
    EXPECT_TRUE(service.WaitForLog("EX: sd_bus_process discard"));
    EXPECT_EQ(QueryValue(service.Root().Database(),
                         "SELECT Speed FROM TblMemoryInfo WHERE OID = 4096"),
              "2933");
    ExpectOrderlyEnd(service, service.Stop());
}

// --- Stops -------------------------------------------------------------------

// What the environment asks for, or the usual.
int Asked(const char *variable, int usual)
{
    const char *asked = std::getenv(variable);
    return asked == nullptr ? usual : std::atoi(asked);
}

// Each run takes a new random moment, from the first log line to some time
// after readiness.
TEST(Stop, AtAnyMomentEndsInOrder)
{
    const int runs = Asked("QDB_TEST_STOPS", 16);
    for (int run = 0; run < runs && !::testing::Test::HasFailure(); ++run)
    {
        ServiceProcess service({.scenario = Scenario(400), .logLevel = 6});
        service.Start();
        ASSERT_TRUE(service.WaitForLog("QDB is getting ready"));
        const int delay = RandomMilliseconds(1600);
        SCOPED_TRACE("run " + std::to_string(run) + ", SIGTERM after " +
                     std::to_string(delay) + " ms");
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        ExpectOrderlyEnd(service, service.Stop());
    }
}

// What goes on while the signal comes.
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
    const PrivateBus bus;
    const ChangeListener listener;
    ServiceProcess service({.scenario = Scenario(1), .logLevel = 2});
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    bus.Freeze();
    for (int i = 0; i < kChanges; ++i)
    {
        const std::string name = std::to_string(i) + std::string(200000, 'x');
        service.Command(R"({"op":"set","oid":4096,"values":{"friendlyFQDD":")" +
                        name + "\"}}");
        // One by one, or two would become one change.
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                return QueryValue(service.Root().Database(),
                                  "SELECT friendlyFQDD FROM TblMemoryInfo") ==
                       name;
            }));
    }
    const size_t threads = ThreadsOf(service.Pid());
    service.Signal(SIGTERM);
    // The workers and the bus thread have gone then, and only the end of the
    // process can still send what waits.
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            return ThreadsOf(service.Pid()) <= threads - kEndingThreads;
        }));
    bus.Thaw();
    EXPECT_EQ(listener.WaitFor(kChanges).size(), size_t{kChanges});
    EXPECT_EQ(service.WaitExit(kStopLimitMs), 0);
}

TEST(Stop, UnderWorkEndsInOrder)
{
    struct
    {
        const char *name;
        std::string command;
    } cases[] = {
        {"1,000 records queued",
         R"({"op":"churn","count":1000,"rate":0,"types":["0x16"]})"},
        {"a destroy of 4,000 objects",
         R"({"op":"delete","oids":[)" + OidList(4096, 4000) + "]}"},
        {"a detach", R"({"op":"detach"})"},
    };
    for (const auto &c : cases)
    {
        SCOPED_TRACE(c.name);
        ServiceProcess service({.scenario = Scenario(4000), .logLevel = 3});
        service.Start();
        ASSERT_TRUE(service.WaitReady());
        // The command may wait for what the stop interrupts.
        std::thread command(
            [&]
            {
                service.Command(c.command);
            });
        std::this_thread::sleep_for(
            std::chrono::milliseconds(RandomMilliseconds(300)));
        service.Signal(SIGTERM);
        service.Signal(SIGTERM);
        const int status = service.WaitExit(kStopLimitMs);
        command.join();
        EXPECT_EQ(status, 0) << service.Log();
        EXPECT_EQ(service.ReadyAttribute(), 0);
    }
}

// --- Memory ------------------------------------------------------------------

// Makes changes, in portions that the workers have worked off before the next
// one comes: the queue has no limit, and its length is not what is measured.
void MakeChanges(const ServiceProcess &service, int count)
{
    static int marker = 0;
    constexpr int kPortion = 1000;
    for (int made = 0; made < count; made += kPortion)
    {
        EXPECT_NE(service
                      .Command(R"({"op":"churn","rate":0,"count":)" +
                               std::to_string(kPortion) +
                               R"(,"types":["0x16"]})")
                      .find("true"),
                  std::string::npos);
        const std::string value = std::to_string(++marker);
        service.Command(R"({"op":"set","oid":4096,"values":{"Speed":)" + value +
                        "}}");
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                return QueryValue(service.Root().Database(),
                                  "SELECT Speed FROM TblMemoryInfo WHERE OID "
                                  "= 4096") == value;
            }));
    }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

TEST(Memory, StaysFlatUnderChanges)
{
    if (kIsSanitized)
    {
        GTEST_SKIP() << "a sanitizer keeps freed memory of its own";
    }
    const int changes = Asked("QDB_TEST_CHANGES", 6000);
    ServiceProcess service({.scenario = Scenario(100), .logLevel = 0});
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    MakeChanges(service, 2000); // fills caches and prepares statements
    const long before = service.ResidentKiB();
    MakeChanges(service, changes);
    const long after = service.ResidentKiB();
    std::printf("resident memory before %d changes: %ld KiB, after: %ld KiB\n",
                changes, before, after);
    // A leak of 100 bytes a change would show with enough of them.
    EXPECT_LT(after - before, std::max(4096L, changes * 100L / 1024));
    EXPECT_EQ(service.Stop(), 0);
}

} // namespace
} // namespace qdb::test

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    const qdb::test::PrivateBus bus;
    return RUN_ALL_TESTS();
}
