#include "bench/side.h"

#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <stdexcept>

namespace qdb::bench
{

Request Channel::Receive() const
{
    Request request = {};
    if (recv(fd_, &request, sizeof(request), 0) != sizeof(request))
    {
        throw std::runtime_error("the bench is gone");
    }
    return request;
}

void Channel::Send(const Answer &answer) const
{
    if (send(fd_, &answer, sizeof(answer), MSG_NOSIGNAL) != sizeof(answer))
    {
        throw std::runtime_error("the bench is gone");
    }
}

Side::Ends::Ends()
{
    int pair[2] = {};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
    {
        throw std::runtime_error("no socket for a side");
    }
    parent = pair[0];
    child = pair[1];
}

Side::Side(std::string name, const std::function<int(Channel)> &body)
    : name_(std::move(name)), process_(
                                  [&]
                                  {
                                      close(ends_.parent);
                                      // As in a new process.
                                      sqlite3_shutdown();
                                      return body(Channel(ends_.child));
                                  })
{
    close(ends_.child);
}

Side::~Side()
{
    close(ends_.parent);
}

Answer Side::Ask(Kind kind, const Step &step, int seconds) const
{
    const Request request = {kind, step, seconds};
    Answer answer = {};
    const bool answered =
        send(ends_.parent, &request, sizeof(request), MSG_NOSIGNAL) ==
            sizeof(request) &&
        recv(ends_.parent, &answer, sizeof(answer), 0) == sizeof(answer);
    if (!answered)
    {
        throw std::runtime_error(name_ + ": ended too early");
    }
    if (answer.error[0] != '\0')
    {
        throw std::runtime_error(name_ + ": " + answer.error);
    }
    return answer;
}

void Side::Stop()
{
    Ask(Kind::Stop);
    process_.Join();
}

void Attempt(Answer *pAnswer, const std::function<void()> &action)
{
    try
    {
        action();
    }
    catch (const std::exception &failure)
    {
        std::snprintf(pAnswer->error, sizeof(pAnswer->error), "%s",
                      failure.what());
    }
}

} // namespace qdb::bench
