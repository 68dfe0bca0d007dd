#include "bench/scratch.h"

#include "tools/schema_sql.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace qdb::bench
{
namespace
{

constexpr char kTmpfs[] = "/dev/shm";
constexpr char kAddress[] = "DBUS_SYSTEM_BUS_ADDRESS";

// With the session's rules: everybody may send and receive, and bursts wait in
// the daemon.
int RunDaemon()
{
    const std::string option = std::string("--address=") + getenv(kAddress);
    execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile",
           option.c_str(), nullptr);
    throw std::runtime_error("can't run dbus-daemon");
}

} // namespace

bool OnTmpfs()
{
    return access(kTmpfs, W_OK) == 0;
}

Directory::Directory()
    : path_(std::string(OnTmpfs() ? kTmpfs : "/tmp") + "/qdbbench.XXXXXX")
{
    if (mkdtemp(path_.data()) == nullptr)
    {
        throw std::runtime_error("can't make " + path_);
    }
}

Directory::~Directory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

Scratch::Scratch()
{
    std::filesystem::create_directories(root / "var/run/quillondatabase");
    std::filesystem::create_directories(root / "var/run/telemetryservice");
    std::string error;
    if (!CreateDatabase(database, false, &error) ||
        mkfifo(pipe.c_str(), 0600) != 0)
    {
        throw std::runtime_error("can't make a database or a pipe " + error);
    }
}

Bus::Bus()
    : daemon_(
          [this]
          {
              const std::string address = "unix:path=" + (directory_ / "bus");
              setenv(kAddress, address.c_str(), 1);
              return RunDaemon();
          })
{
    const std::string socket = directory_ / "bus";
    setenv(kAddress, ("unix:path=" + socket).c_str(), 1);
    Await("the bus",
          [&]
          {
              return access(socket.c_str(), F_OK) == 0;
          });
}

} // namespace qdb::bench
