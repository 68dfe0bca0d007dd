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

void Process::Join()
{
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    {
        throw std::runtime_error("a process of the bench failed");
    }
}

} // namespace qdb::bench
