// The connection to the control socket of the stand-in platform.
//
// One JSON object per line goes out, one comes back, in order. Failures are
// exceptions: they all end the command, and main alone turns them into an exit
// status.
#pragma once

#include "tools/dmctl/json.h"

#include <stdexcept>
#include <string>

namespace qdb
{

// The stand-in refused a request; what() is its own text.
class Refused : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

// Nobody answers at the socket, or no longer.
class NoConnection : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

class Client
{
  public:
    // For the Unix socket at `path`, which the first call connects to.
    explicit Client(std::string path);
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // Sends a request and waits for its reply, without limit: some requests
    // take as long as they are asked to. Throws Refused or NoConnection.
    Json Call(const Json &request);

    // Sends the operations in one request. Returns the array of their replies,
    // each with its own "ok"; only a refusal of the whole throws.
    Json CallBatch(const Json &operations);

  private:
    void Connect();
    void Send(const std::string &line);
    std::string ReadLine();

    std::string mPath;
    int mSocket = -1;    // -1: not connected yet
    std::string mUnread; // behind the last line that was taken
};

// {"op": name}, to be filled with the operation's arguments.
Json Operation(const char *name);

// Whether a reply reports success; a reply that doesn't say so is a failure.
bool Succeeded(const json_t *reply);

// Why a reply reports none.
std::string ErrorOf(const json_t *reply);

} // namespace qdb
