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

// With the session's rules: everybody may send and receive, and bursts wait in
// the daemon.
int RunDaemon(const std::string &address)
{
    execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile",
           ("--address=" + address).c_str(), nullptr);
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
    : address_("unix:path=" + (directory_ / "bus")),
      daemon_(
          [this]
          {
              return RunDaemon(address_);
          })
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    AwaitServer(directory_ / "bus");
}

} // namespace qdb::bench
