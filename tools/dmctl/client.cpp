#include "tools/dmctl/client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace qdb
{

namespace
{

// Far above the list of all objects; a peer that sends more is not a stand-in.
constexpr size_t kLongestReply = 256u << 20;

NoConnection Broken(const std::string &what)
{
    return NoConnection(what + ": " + strerror(errno));
}

Json ParseReply(const std::string &line)
{
    json_error_t error;
    Json reply(json_loadb(line.data(), line.size(), 0, &error));
    if (!json_is_object(reply.get()))
    {
        throw NoConnection(std::string("garbled reply: ") + error.text);
    }
    return reply;
}

} // namespace

Client::Client(std::string path) : mPath(std::move(path))
{
}

Client::~Client()
{
    if (mSocket >= 0)
    {
        close(mSocket);
    }
}

void Client::Connect()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (mPath.empty() || mPath.size() >= sizeof(address.sun_path))
    {
        throw NoConnection("not a socket's path: \"" + mPath + "\"");
    }
    memcpy(address.sun_path, mPath.data(), mPath.size());
    mSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (mSocket < 0)
    {
        throw Broken("socket");
    }
    const auto *generic = reinterpret_cast<const sockaddr *>(&address);
    if (connect(mSocket, generic, sizeof(address)) != 0)
    {
        throw Broken(mPath);
    }
}

Json Client::Call(const Json &request)
{
    if (mSocket < 0)
    {
        Connect();
    }
    Send(Dump(request.get()) + '\n');
    Json reply = ParseReply(ReadLine());
    if (!Succeeded(reply.get()))
    {
        throw Refused(ErrorOf(reply.get()));
    }
    return reply;
}

Json Client::CallBatch(const Json &operations)
{
    const Json request = Operation("batch");
    Put(request, "ops", Share(operations.get()));
    const Json reply = Call(request);
    json_t *replies = json_object_get(reply.get(), "replies");
    if (json_array_size(replies) != json_array_size(operations.get()))
    {
        throw NoConnection("garbled reply: not one per operation");
    }
    return Share(replies);
}

void Client::Send(const std::string &line)
{
    size_t sent = 0;
    while (sent < line.size())
    {
        const ssize_t count =
            send(mSocket, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR)
        {
            throw Broken("send");
        }
        sent += count < 0 ? 0 : static_cast<size_t>(count);
    }
}

std::string Client::ReadLine()
{
    size_t searched = 0;
    for (;;)
    {
        const size_t end = mUnread.find('\n', searched);
        if (end != std::string::npos)
        {
            std::string line = mUnread.substr(0, end);
            mUnread.erase(0, end + 1);
            return line;
        }
        searched = mUnread.size();
        char block[65536];
        const ssize_t count = recv(mSocket, block, sizeof(block), 0);
        if (count == 0 || mUnread.size() > kLongestReply)
        {
            throw NoConnection("the stand-in closed the connection");
        }
        if (count < 0 && errno != EINTR)
        {
            throw Broken("receive");
        }
        mUnread.append(block, count < 0 ? 0 : static_cast<size_t>(count));
    }
}

Json Operation(const char *name)
{
    Json operation(json_object());
    Put(operation, "op", Text(name));
    return operation;
}

bool Succeeded(const json_t *reply)
{
    return json_is_true(json_object_get(reply, "ok"));
}

std::string ErrorOf(const json_t *reply)
{
    const std::string error = TextOf(reply, "error");
    return error.empty() ? "refused without a reason" : error;
}

} // namespace qdb
