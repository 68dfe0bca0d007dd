#include "bench/process.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
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

void Await(const std::string &what, const std::function<bool()> &condition)
{
    const int64_t begin = Now();
    while (!condition())
    {
        if (Now() - begin > kLimit)
        {
            throw std::runtime_error("waited in vain for " + what);
        }
        usleep(1000);
    }
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
    int status = 0;
    kill(pid_, SIGTERM);
    Await("the end of a process",
          [&]
          {
              return waitpid(pid_, &status, WNOHANG) == pid_;
          });
    pid_ = -1;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    {
        throw std::runtime_error("a process ended with a failure");
    }
}

} // namespace qdb::bench
