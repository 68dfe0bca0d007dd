#include "bench/process.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>

namespace qdb::bench
{
namespace
{

constexpr int64_t kLimit = 300'000'000'000; // nanoseconds

[[noreturn]] void RunChild(const std::function<int()> &body)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int status = 1;
    try
    {
        status = body();
    }
    catch (const std::exception &failure)
    {
        std::fprintf(stderr, "qdb-bench: %s\n", failure.what());
    }
    _exit(status);
}

} // namespace

int64_t Now()
{
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

double Seconds(int64_t nanoseconds)
{
    return static_cast<double>(nanoseconds) / 1e9;
}

int64_t ProcessorTime(pid_t process)
{
    clockid_t clock = 0;
    timespec time = {};
    if (clock_getcpuclockid(process, &clock) != 0 ||
        clock_gettime(clock, &time) != 0)
    {
        throw std::runtime_error("a process has no clock");
    }
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

void Await(const std::string &what, const std::function<bool()> &condition)
{
    const int64_t begin = Now();
    while (!condition())
    {
        siginfo_t ended = {};
        waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT);
        if (ended.si_pid != 0 || Now() - begin > kLimit)
        {
            throw std::runtime_error("waited in vain for " + what);
        }
        usleep(1000);
    }
}

void AwaitServer(const std::string &path)
{
    const auto isServed = [&]
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int result = connect(fd, reinterpret_cast<sockaddr *>(&address),
                                   sizeof(address));
        close(fd);
        return result == 0;
    };
    Await("a server at " + path, isServed);
}

Process::Process(const std::function<int()> &body) : pid_(fork())
{
    if (pid_ == 0)
    {
        RunChild(body);
    }
    if (pid_ < 0)
    {
        throw std::runtime_error("can't fork");
    }
}

Process::~Process()
{
    if (pid_ > 0)
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void Process::End()
{
    constexpr int kLimitMs = 15000; // a stop takes ten seconds at most
    int status = 0;
    int waited = 0;
    kill(pid_, SIGTERM);
    while (waitpid(pid_, &status, WNOHANG) != pid_)
    {
        if (++waited > kLimitMs)
        {
            throw std::runtime_error("a process doesn't end");
        }
        usleep(1000);
    }
    pid_ = -1;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    {
        throw std::runtime_error("a process ended with a failure");
    }
}

} // namespace qdb::bench
