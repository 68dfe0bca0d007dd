#include "tests/support/service_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

namespace qdb::test
{
namespace
{

std::string ReadFile(const std::string &path)
{
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// Sends the line and returns the answer's; "" when there is none.
std::string Ask(int fd, const std::string &line)
{
    std::string reply;
    char block[65536];
    ssize_t n = send(fd, line.data(), line.size(), MSG_NOSIGNAL);
    while (n > 0 && reply.find('\n') == std::string::npos)
    {
        n = read(fd, block, sizeof(block));
        reply.append(block, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    }
    return n > 0 ? reply : "";
}

// What the service finds in its environment: what is asked for, and what is
// there already. Nothing is in it twice: not all take the first for what
// counts.
std::vector<std::string> Environment(const ServiceOptions &options,
                                     const std::string &root)
{
    const std::string bus = options.busAddress.empty()
                                ? std::getenv("DBUS_SYSTEM_BUS_ADDRESS")
                                : options.busAddress;
    std::vector<std::string> wanted = options.variables;
    wanted.insert(wanted.end(),
                  {"QDB_TEST_ROOT=" + root,
                   "QDB_STANDIN_SCENARIO=" + root + "/scenario.json",
                   "QDB_STANDIN_SOCKET=" + root + "/control",
                   "QDB_STANDIN_STATE=" + root + "/state.json",
                   "QDB_STANDIN_LOG=" + std::to_string(options.logLevel),
                   "DBUS_SYSTEM_BUS_ADDRESS=" + bus});
    std::map<std::string, std::string> byName;
    for (const std::string &variable : wanted)
    {
        byName.emplace(variable.substr(0, variable.find('=')), variable);
    }
    for (char **entry = environ; *entry != nullptr; ++entry)
    {
        const std::string variable = *entry;
        byName.emplace(variable.substr(0, variable.find('=')), variable);
    }
    std::vector<std::string> environment;
    for (const auto &[name, variable] : byName)
    {
        environment.push_back(variable);
    }
    return environment;
}

} // namespace

std::string Server(int count, const std::string &more,
                   const std::string &objects)
{
    const std::string n = std::to_string(count);
    return "{" + more + R"("objects":[)" + objects +
           R"({"type":"0xE1","oid":{"base":4096,"step":1},"parents":[1],)"
           R"("values":{"Key":"DIMM{i}"},"repeat":)" +
           n +
           R"(},{"type":"0x16","oid":{"base":65536,"step":1},)"
           R"("values":{"probeReading":20,"Key":"Probe{i}"},"repeat":)" +
           n + "}]}";
}

ServiceProcess::ServiceProcess(ServiceOptions options)
    : options_(std::move(options))
{
    std::ofstream(root_.Path() + "/scenario.json")
        << (options_.scenario.empty() ? "{}" : options_.scenario);
    if (options_.database)
    {
        root_.MakeDatabase();
    }
    if (options_.pipe)
    {
        root_.MakePipe();
    }
}

// What a failure can't be understood without.
ServiceProcess::~ServiceProcess()
{
    if (pid_ > 0)
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (testing::Test::HasFailure())
    {
        constexpr size_t kShown = 4096;
        const std::string log = Log();
        std::fprintf(
            stderr, "the service's last lines:\n%s\n",
            log.substr(log.size() - std::min(log.size(), kShown)).c_str());
    }
}

void ServiceProcess::Start()
{
    const char *program = std::getenv("QDB_TEST_SERVICE");
    ASSERT_NE(program, nullptr) << "QDB_TEST_SERVICE names the service";
    const std::vector<std::string> environment =
        Environment(options_, root_.Path());
    std::vector<char *> variables;
    for (const std::string &variable : environment)
    {
        variables.push_back(const_cast<char *>(variable.c_str()));
    }
    variables.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(
        &actions, STDERR_FILENO, (root_.Path() + "/log").c_str(),
        O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    // Whatever this process does with it, the service has to ignore it itself.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    char *arguments[] = {const_cast<char *>(program), nullptr};
    EXPECT_EQ(posix_spawn(&pid_, program, &actions, &attributes, arguments,
                          variables.data()),
              0);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
}

std::string ServiceProcess::Log() const
{
    return ReadFile(root_.Path() + "/log");
}

bool ServiceProcess::WaitForLog(const std::string &text) const
{
    return WaitUntil(
        [&]
        {
            return Log().find(text) != std::string::npos;
        });
}

bool ServiceProcess::WaitReady() const
{
    return WaitUntil(
        [this]
        {
            return ReadyAttribute() == 1;
        });
}

void ServiceProcess::Signal(int signalNumber) const
{
    // Never -1, which would mean every process there is.
    if (pid_ > 0)
    {
        kill(pid_, signalNumber);
    }
}

int ServiceProcess::WaitExit(int deadlineMs)
{
    int status = 0;
    if (pid_ <= 0 || !WaitUntil(
                         [&]
                         {
                             return waitpid(pid_, &status, WNOHANG) == pid_;
                         },
                         deadlineMs))
    {
        return -1;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int ServiceProcess::Stop()
{
    Signal(SIGTERM);
    return WaitExit(kStopLimitMs);
}

int ServiceProcess::ReadyAttribute() const
{
    const std::string state = ReadFile(root_.Path() + "/state.json");
    const std::string key = "IsQuillonDBReady\":";
    const size_t at = state.find(key);
    return at == std::string::npos ? -1
                                   : std::atoi(state.c_str() + at + key.size());
}

std::string ServiceProcess::Command(const std::string &json) const
{
    return CommandAt(root_.Path() + "/control", json);
}

std::string CommandAt(const std::string &path, const std::string &json)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = connect(fd, reinterpret_cast<sockaddr *>(&address),
                                   sizeof(address)) == 0;
    const std::string reply = connected ? Ask(fd, json + "\n") : "";
    close(fd);
    return reply;
}

void ServiceProcess::SetSpeed(int speed) const
{
    Command(R"({"op":"set","oid":4096,"values":{"Speed":)" +
            std::to_string(speed) + "}}");
}

bool ServiceProcess::WaitForSpeed(int speed) const
{
    return WaitUntil(
        [&]
        {
            return QueryValue(root_.Database(),
                              "SELECT Speed FROM TblMemoryInfo WHERE OID = "
                              "4096") == std::to_string(speed);
        });
}

void Live(const std::vector<Life> &lives)
{
    std::vector<std::unique_ptr<ServiceProcess>> services;
    for (const Life &life : lives)
    {
        services.push_back(std::make_unique<ServiceProcess>(life.options));
        if (life.begin)
        {
            life.begin(services.back()->Root());
        }
        services.back()->Start();
    }
    for (size_t i = 0; i < lives.size(); ++i)
    {
        SCOPED_TRACE(lives[i].name);
        lives[i].happening(*services[i]);
    }
    // Many at once keep the machine busy.
    const int patienceMs = kStopLimitMs + (lives.size() == 1 ? 0 : 5000);
    for (size_t i = 0; i < lives.size(); ++i)
    {
        SCOPED_TRACE(lives[i].name);
        EXPECT_EQ(services[i]->WaitExit(patienceMs), lives[i].status);
        EXPECT_EQ(services[i]->ReadyAttribute(), lives[i].attribute);
        const std::string log = services[i]->Log();
        size_t at = 0;
        for (const std::string &line : lives[i].lines)
        {
            at = log.find(line, at);
            ASSERT_NE(at, std::string::npos)
                << line << "\nin\n"
                << log.substr(log.size() - std::min<size_t>(log.size(), 6000));
        }
    }
}

void Serve(ServiceProcess &service)
{
    EXPECT_TRUE(service.WaitReady());
    service.SetSpeed(2933);
    EXPECT_TRUE(service.WaitForSpeed(2933));
    service.Signal(SIGTERM);
}

} // namespace qdb::test
