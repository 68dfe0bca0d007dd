#include "bench/process.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>

namespace qdb::bench
{
namespace
{

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
    // A stop takes ten seconds at most.
    constexpr int kLimitMs = 15000;
    int status = 0;
    kill(pid_, SIGTERM);
    int waited = 0;
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
