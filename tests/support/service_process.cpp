#include "tests/support/service_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
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

class Socket
{
  public:
    explicit Socket(const std::string &path)
        : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(),
                     sizeof(address.sun_path) - 1);
        connected_ = connect(fd_, reinterpret_cast<sockaddr *>(&address),
                             sizeof(address)) == 0;
    }
    ~Socket()
    {
        close(fd_);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;

    std::string Ask(const std::string &line) const
    {
        if (!connected_ || send(fd_, line.data(), line.size(), MSG_NOSIGNAL) !=
                               static_cast<ssize_t>(line.size()))
        {
            return "";
        }
        std::string reply;
        char block[65536];
        while (reply.find('\n') == std::string::npos)
        {
            const ssize_t n = read(fd_, block, sizeof(block));
            if (n <= 0)
            {
                return "";
            }
            reply.append(block, static_cast<size_t>(n));
        }
        return reply;
    }

  private:
    int fd_;
    bool connected_;
};

} // namespace

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

ServiceProcess::~ServiceProcess()
{
    if (pid_ > 0)
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

std::vector<std::string> ServiceProcess::Environment() const
{
    std::vector<std::string> environment;
    for (char **entry = environ; *entry != nullptr; ++entry)
    {
        environment.emplace_back(*entry);
    }
    const std::string &root = root_.Path();
    const std::string bus = options_.busAddress.empty()
                                ? std::getenv("DBUS_SYSTEM_BUS_ADDRESS")
                                : options_.busAddress;
    environment.insert(environment.begin(),
                       {"QDB_TEST_ROOT=" + root,
                        "QDB_STANDIN_SCENARIO=" + root + "/scenario.json",
                        "QDB_STANDIN_SOCKET=" + root + "/control",
                        "QDB_STANDIN_STATE=" + root + "/state.json",
                        "QDB_STANDIN_LOG=" + std::to_string(options_.logLevel),
                        "DBUS_SYSTEM_BUS_ADDRESS=" + bus});
    environment.insert(environment.begin(), options_.variables.begin(),
                       options_.variables.end());
    return environment;
}

void ServiceProcess::Start()
{
    const char *program = std::getenv("QDB_TEST_SERVICE");
    ASSERT_NE(program, nullptr) << "QDB_TEST_SERVICE names the service";
    const std::vector<std::string> environment = Environment();
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

bool ServiceProcess::WaitForLog(const std::string &text, int deadlineMs) const
{
    return WaitUntil(
        [&]
        {
            return Log().find(text) != std::string::npos;
        },
        deadlineMs);
}

bool ServiceProcess::WaitReady() const
{
    const bool ready = WaitUntil(
        [this]
        {
            return ReadyAttribute() == 1;
        });
    if (!ready)
    {
        const std::string log = Log();
        ADD_FAILURE() << "not ready, and these were the last lines:\n"
                      << log.substr(log.size() -
                                    std::min<size_t>(log.size(), 4000));
    }
    return ready;
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
    return Socket(root_.Path() + "/control").Ask(json + "\n");
}

long ServiceProcess::ResidentKiB() const
{
    std::istringstream status(
        ReadFile("/proc/" + std::to_string(pid_) + "/status"));
    for (std::string line; std::getline(status, line);)
    {
        if (line.rfind("VmRSS:", 0) == 0)
        {
            return std::atol(line.c_str() + 6);
        }
    }
    return -1;
}

} // namespace qdb::test
