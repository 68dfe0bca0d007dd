// The real process: start-up, the ways it can be missing something, and its
// end. Nearly every service here must end in order: status 0 within the limit
// of a stop, readiness withdrawn, and a clean bill from the sanitizers, which
// would change the status.

#include "tests/support/change_listener.h"
#include "tests/support/private_bus.h"
#include "tests/support/service_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

namespace qdb::test
{
namespace
{

// Nothing was left behind.
constexpr char kInOrder[] = "Main exit: closed DB";

// In a scenario; `more` of it.
std::string Fault(const char *call, int status, const std::string &more = "")
{
    return std::string(R"("faults":[{"call":")") + call +
           R"(","times":1000000,)" + more + R"("status":)" +
           std::to_string(status) + "}],";
}

// Serves with that many memory modules, or with what SQLite says of them.
Happening ServeWith(const std::string &modules)
{
    return [=](ServiceProcess &service)
    {
        EXPECT_TRUE(service.WaitReady());
        EXPECT_EQ(QueryValue(service.Root().Database(),
                             "SELECT count(*) FROM TblMemoryInfo"),
                  modules);
        service.Signal(SIGTERM);
    };
}

void EndByItself(ServiceProcess & /*service*/)
{
}

void PutADirectoryInItsPlace(const TempRoot &root)
{
    std::filesystem::create_directory(root.Database());
}

// Overwrites all pages but the first with random bytes, and counts a change, so
// that nobody goes on with what is cached.
void Corrupt(const TempRoot &root)
{
    constexpr size_t kPage = 4096;
    constexpr std::streamoff kChangeCounter = 27;
    std::fstream file(root.Database(),
                      std::ios::binary | std::ios::in | std::ios::out);
    file.seekg(kChangeCounter);
    const char changes = static_cast<char>(file.get() + 1);
    file.seekp(kChangeCounter);
    file.put(changes);
    file.seekp(kPage);
    std::mt19937 engine(7);
    const auto size = std::filesystem::file_size(root.Database());
    for (uintmax_t at = kPage; at < size; ++at)
    {
        file.put(static_cast<char>(engine()));
    }
}

// The database becomes corrupt, and the command has it read.
Happening CorruptThen(const std::string &command)
{
    return [=](ServiceProcess &service)
    {
        EXPECT_TRUE(service.WaitReady());
        EXPECT_TRUE(service.WaitForLog("end of loop"));
        Corrupt(service.Root());
        service.Command(command);
    };
}

// A write to a pipe whose reader has gone would end the process by SIGPIPE.
void LoseTheReader(ServiceProcess &service)
{
    EXPECT_TRUE(service.WaitReady());
    {
        PipeReader reader(service.Root().Pipe());
        service.SetSpeed(1);
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                return !reader.Take().empty();
            }));
    }
    Serve(service);
}

TEST(Process, LivesWithWhatIsMissing)
{
    const std::string devices =
        R"({"type":"0xEB","oid":235},{"type":"0xEC","oid":236},)";
    const std::string device =
        R"({"op":"set","oid":235,"values":{"version":"2"},"announce":false})";
    const std::string module =
        R"({"op":"set","oid":4096,"values":{"Speed":1000}})";
    const std::string noPipe = "QDB-TDB pipe open failed with error: ";
    const std::string corrupt = "handle_QuillonDB_Sqlite_corrupt sqlite "
                                "corrupt error occured";
    // clang-format off
    Live({
        // The steps of a whole life, in their order.
        {"nothing", {.scenario = Server(20)}, ServeWith("20"),
         {"QDB is getting ready. Disable sending Dbus events!!",
          "event listener added", "Client is attached.", "Opening DB.",
          "QDVDBInit() success.", "Entering OnLoadObjectsCreation",
          "OnLoadObjectsCreation total objects created: 40",
          "OnLoadRawObjectsUpdate: Exit", "Start thread: 1",
          "Start thread: 10, Status=0", "QDB is ready. Enable", "ACCEPT THREAD",
          kInOrder, "Main exit: free globals", "Main exited"}},
        {"a Data Manager that listens", {.scenario = Server(3, Fault("ZOILAddEventListener", 77)), .logLevel = 8},
         EndByItself, {"ZOILAddEventListener failed: status: 77", kInOrder}},
        {"a Data Manager that is up", {.scenario = Server(3, Fault("ZOILIsDataManagerReady", 2))},
         Serve, {"Client attachment failed.", kInOrder}},
        {"no bus", {.scenario = Server(3), .busAddress = "unix:path=/nonexistent"}, ServeWith("3"),
         {"Failed to connect to bus", kInOrder}},
        {"no database file", {.scenario = Server(3), .database = false},
         ServeWith("no such table: TblMemoryInfo"), {"sqlite3_prepare_v2 Error: 1", kInOrder}},
        {"no database that can be opened", {.database = false}, EndByItself,
         {"QDVDBInit() Error.", kInOrder}, 0, 0, PutADirectoryInItsPlace},
        {"no telemetry pipe", {.scenario = Server(3)}, Serve, {noPipe + "2", kInOrder}},
        {"no telemetry reader", {.scenario = Server(3), .pipe = true}, Serve, {noPipe + "6", kInOrder}},
        {"the reader, later", {.scenario = Server(3), .pipe = true}, LoseTheReader, {kInOrder}},
        {"a good database", {.scenario = Server(3)}, EndByItself,
         {"OnLoadObjectsCreation() returns ret=11"}, EXIT_FAILURE, 0, Corrupt},
        {"a good database, later, as a worker finds", {.scenario = Server(20)},
         CorruptThen(module), {corrupt, kInOrder}},
        {"the same, as a pass finds", {.scenario = Server(20, "", devices)}, CorruptThen(device),
         {"sempost issued 11", corrupt, kInOrder}},
    });
    // clang-format on
}

// What the service manager is told, through a socket of ours.
class Supervisor
{
  public:
    explicit Supervisor(const std::string &path)
        : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(
            bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)),
            0);
    }
    ~Supervisor()
    {
        close(fd_);
    }
    Supervisor(const Supervisor &) = delete;
    Supervisor &operator=(const Supervisor &) = delete;

    // Waits for a message that begins so; all up to it, a line each.
    bool WaitFor(const std::string &text)
    {
        return WaitUntil(
            [&]
            {
                char message[512];
                const ssize_t size = recv(fd_, message, sizeof(message), 0);
                if (size <= 0)
                {
                    return false;
                }
                told.append(message, static_cast<size_t>(size)) += '\n';
                return std::string_view(message, static_cast<size_t>(size))
                    .starts_with(text);
            });
    }

    std::string told;

  private:
    int fd_;
};

TEST(Process, TellsItsSupervisorHowItIs)
{
    const TempRoot root;
    const std::string refused = Fault("CfgSetAttributeInt", 5, "\"skip\":1,");
    const struct
    {
        const char *name;
        ServiceOptions options;
        const char *state;
    } kCases[] = {
        // clang-format off
        {"good", {.scenario = Server(700)}, "1,400 objects, changes announced"},
        {"mute", {.scenario = Server(1), .busAddress = "unix:path=/nowhere"}, "changes not announced: no bus"},
        {"refused", {.scenario = Server(1, refused)}, "changes not announced: readiness is refused"},
        // clang-format on
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        const std::string path = root.Path() + "/" + c.name;
        Supervisor supervisor(path);
        ServiceOptions options = c.options;
        options.variables.push_back("NOTIFY_SOCKET=" + path);
        ServiceProcess service(options);
        service.Start();
        EXPECT_TRUE(supervisor.WaitFor("READY=1")) << supervisor.told;
        const size_t filled = supervisor.told.find("filling: 159 of 159 types");
        EXPECT_LT(supervisor.told.find("filling: 1 of 159 types"), filled);
        EXPECT_LT(filled, supervisor.told.find(std::string("STATUS=") +
                                               c.state + "\nREADY=1\n"))
            << supervisor.told;
        service.Signal(SIGTERM);
        EXPECT_TRUE(supervisor.WaitFor("STOPPING=1\nSTATUS=stopping"));
        EXPECT_EQ(service.WaitExit(), 0);
    }
}

TEST(Program, TellsWhatItIsAndTakesNoArguments)
{
    const struct
    {
        const char *arguments;
        const char *output; // begins so
        int status;
    } kCases[] = {
        {"--help", "usage: quillondb ", 0},
        {"--version", "quillondb 0.", 0},
        {"-x 2>&1", "usage: quillondb ", 2},
        {"--help more 2>&1", "usage: quillondb ", 2},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.arguments);
        FILE *output = popen(
            (std::string(std::getenv("QDB_TEST_PROGRAM")) + " " + c.arguments)
                .c_str(),
            "r");
        char line[100] = {};
        EXPECT_NE(fgets(line, sizeof(line), output), nullptr);
        EXPECT_TRUE(std::string_view(line).starts_with(c.output)) << line;
        EXPECT_EQ(WEXITSTATUS(pclose(output)), c.status);
    }
}

TEST(Process, GoesOnWithoutTheBus)
{
    const std::string others = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    PrivateBus bus;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", others.c_str(), 1);
    const auto loseTheBus = [&](ServiceProcess &service)
    {
        EXPECT_TRUE(service.WaitReady());
        bus.Kill();
        service.SetSpeed(1);
        EXPECT_TRUE(service.WaitForLog("Failed to emit signal sd_bus_send"));
        EXPECT_TRUE(service.WaitForLog("EX: sd_bus_process discard"));
        Serve(service);
    };
    Live({{"",
           {.scenario = Server(3), .busAddress = bus.Address()},
           loseTheBus,
           {kInOrder}}});
}

// Readiness cannot be published until the fault is lifted, so that there is all
// the time in the world to catch a signal that should not be.
TEST(Process, SendsNoSignalBeforeReadiness)
{
    const ChangeListener listener;
    const auto becomeReadyLate = [&](ServiceProcess &service)
    {
        EXPECT_TRUE(service.WaitForLog("CfgSetAttributeInt QDB_READY failed"));
        service.Command(R"({"op":"create","type":"0x17","oid":99})");
        // Its row is there long before it would be announced.
        EXPECT_TRUE(service.WaitForLog("CreateObj_17 Exit for OID: 99,st"));
        service.Command(R"({"op":"fault","call":"CfgSetAttributeInt",)"
                        R"("status":0,"times":0})");
        // The next event publishes readiness, and is the first to be announced.
        service.SetSpeed(2933);
        const std::vector<Change> changes = listener.WaitFor(1);
        ASSERT_EQ(changes.size(), 1u) << "a signal from before readiness";
        EXPECT_EQ(changes[0].member, "Vexo_qdb_Resource_Changed");
        EXPECT_NE(changes[0].json.find("\"Speed\": 2933"), std::string::npos);
        EXPECT_EQ(service.ReadyAttribute(), 1);
        service.Signal(SIGTERM);
    };
    const std::string fault = Fault("CfgSetAttributeInt", 5, R"("skip":1,)");
    Live({{"", {.scenario = Server(20, fault)}, becomeReadyLate, {kInOrder}}});
}

// --- Memory ------------------------------------------------------------------

// Makes changes, in portions that the workers have worked off before the next
// one comes: the queue has no limit, and its length is not what is measured.
void MakeChanges(const ServiceProcess &service, int count)
{
    static int speed = 0;
    constexpr int kPortion = 1000;
    for (int made = 0; made < count; made += kPortion)
    {
        const std::string churn =
            R"({"op":"churn","rate":0,"types":["0x16"],"count":)" +
            std::to_string(kPortion) + "}";
        EXPECT_NE(service.Command(churn).find("true"), std::string::npos);
        service.SetSpeed(++speed);
        EXPECT_TRUE(service.WaitForSpeed(speed));
    }
}

long ResidentKiB(const ServiceProcess &service)
{
    std::ifstream status("/proc/" + std::to_string(service.Pid()) + "/status");
    std::string word;
    long size = -1;
    while (status >> word && word != "VmRSS:")
    {
    }
    status >> size;
    return size;
}

TEST(Memory, StaysFlatUnderChanges)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer keeps freed memory of its own";
#endif
    const char *asked = std::getenv("QDB_TEST_CHANGES");
    const int changes = asked == nullptr ? 6000 : std::atoi(asked);
    ServiceProcess service({.scenario = Server(100), .logLevel = 0});
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    MakeChanges(service, 2000); // fills caches and prepares statements
    const long before = ResidentKiB(service);
    MakeChanges(service, changes);
    const long after = ResidentKiB(service);
    std::printf("resident memory before %d changes: %ld KiB, after: %ld KiB\n",
                changes, before, after);
    // A leak of 100 bytes a change would show with enough of them.
    EXPECT_GT(before, 0);
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
