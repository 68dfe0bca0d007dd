// The control socket.
#include "standin/control.h"

#include "core/descriptor.h"
#include "standin/commands.h"
#include "standin/support.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace standin
{
namespace
{

constexpr size_t kLongestLine = 16U << 20;

bool SendAll(int fd, std::string_view text)
{
    while (!text.empty())
    {
        const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent < 0)
        {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

std::string ReplyTo(std::string_view line)
{
    json_error_t error = {};
    const Json request(json_loadb(line.data(), line.size(), 0, &error));
    const Json reply = request == nullptr
                           ? FailureReply(Print("bad JSON: %s", error.text))
                           : Execute(request.get());
    char *text = json_dumps(reply.get(), JSON_COMPACT);
    const std::string answer = text == nullptr ? "" : text;
    std::free(text);
    return answer + '\n';
}

void ServeClient(int fd)
{
    const qdb::Descriptor client(fd);
    std::string input;
    char chunk[65536];
    for (;;)
    {
        const ssize_t received = recv(client, chunk, sizeof(chunk), 0);
        if (received <= 0)
        {
            return;
        }
        // Only what is new can hold the end of the line.
        size_t searchFrom = input.size();
        input.append(chunk, static_cast<size_t>(received));
        size_t begin = 0;
        for (size_t end = input.find('\n', searchFrom);
             end != std::string::npos; end = input.find('\n', begin))
        {
            const std::string_view line(input.data() + begin, end - begin);
            if (line.size() > kLongestLine || !SendAll(client, ReplyTo(line)))
            {
                return;
            }
            begin = end + 1;
        }
        input.erase(0, begin);
        if (input.size() > kLongestLine)
        {
            return;
        }
    }
}

void AcceptClients(const qdb::Descriptor &listener)
{
    for (;;)
    {
        const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client >= 0)
        {
            RunInBackground(
                [client]
                {
                    ServeClient(client);
                });
        }
        else if (errno != ECONNABORTED && errno != EINTR)
        {
            Complain("control socket %s", std::strerror(errno));
            return;
        }
    }
}

// False when something else than a socket is in the way.
bool RemoveStale(const char *path)
{
    struct stat status = {};
    if (lstat(path, &status) != 0)
    {
        return errno == ENOENT;
    }
    if (!S_ISSOCK(status.st_mode))
    {
        errno = EEXIST;
        return false;
    }
    return unlink(path) == 0;
}

} // namespace

void ServeControl(const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof(address.sun_path))
    {
        Complain("control socket %s: the path is too long", path);
        return;
    }
    std::memcpy(address.sun_path, path, std::strlen(path));
    const auto listener = std::make_shared<qdb::Descriptor>(
        socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // The mode that the socket has before it gets its name is the name's mode.
    if (*listener < 0 || fchmod(*listener, 0600) != 0 || !RemoveStale(path) ||
        bind(*listener, reinterpret_cast<const sockaddr *>(&address),
             sizeof(address)) != 0 ||
        listen(*listener, 16) != 0)
    {
        Complain("control socket %s: %s", path, std::strerror(errno));
        return;
    }
    RunInBackground(
        [listener]
        {
            AcceptClients(*listener);
        });
}

} // namespace standin
