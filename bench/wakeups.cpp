#include "bench/wakeups.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <stdexcept>
#include <thread>

namespace qdb::bench
{
namespace
{

double ProcessorTime()
{
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) +
           static_cast<double>(time.tv_nsec) / 1e9;
}

// As the signal thread: a look at a socket, and a wait for it of a millisecond.
void WatchSocket(int fd)
{
    while (true)
    {
        char byte = 0;
        static_cast<void>(recv(fd, &byte, 1, MSG_DONTWAIT));
        pollfd readable = {fd, POLLIN, 0};
        const timespec wait = {0, 1000000};
        ppoll(&readable, 1, &wait, nullptr);
    }
}

// As the NC thread between two passes.
void Pause()
{
    while (true)
    {
        usleep(5000);
    }
}

int Run(int seconds, double *pProcessor)
{
    int pair[2] = {};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
    {
        throw std::runtime_error("no socket for the wake-ups");
    }
    // The process ends under them.
    std::thread(WatchSocket, pair[0]).detach();
    std::thread(Pause).detach();
    const double before = ProcessorTime();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    *pProcessor = ProcessorTime() - before;
    return 0;
}

} // namespace

WakeUps::WakeUps(int seconds)
    : process_(
          [=, this]
          {
              return Run(seconds, &*processor_);
          })
{
}

double WakeUps::Processor()
{
    process_.Join();
    return *processor_;
}

} // namespace qdb::bench
