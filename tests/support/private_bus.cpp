#include "tests/support/private_bus.h"

#include "tests/support/wait.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

extern char **environ;

namespace qdb::test
{
namespace
{

std::string Configuration(const std::string &socket, size_t held)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus "
           "Configuration 1.0//EN\" "
           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n<type>system</type>\n<listen>unix:path=" +
           socket +
           "</listen>\n<auth>EXTERNAL</auth>\n<policy context=\"default\">\n"
           "<allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
           "<allow eavesdrop=\"true\"/>\n<allow own=\"*\"/>\n</policy>\n"
           "<limit name=\"max_outgoing_bytes\">" +
           std::to_string(held) +
           "</limit>\n"
           "</busconfig>\n";
}

// The socket's file is there a moment before anybody listens.
bool IsServed(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool isServed = connect(fd, reinterpret_cast<sockaddr *>(&address),
                                  sizeof(address)) == 0;
    close(fd);
    return isServed;
}

} // namespace

BusDaemon::BusDaemon(const std::string &configuration,
                     const std::string &socket)
{
    const std::string option = "--config-file=" + configuration;
    const char *arguments[] = {"setpriv",     "--pdeathsig",  "KILL",
                               "dbus-daemon", option.c_str(), "--nofork",
                               "--nopidfile", nullptr};
    EXPECT_EQ(posix_spawnp(&pid_, "setpriv", nullptr, nullptr,
                           const_cast<char **>(arguments), environ),
              0);
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            return IsServed(socket);
        }));
}

BusDaemon::~BusDaemon()
{
    Kill();
}

void BusDaemon::Signal(int signalNumber) const
{
    if (pid_ > 0)
    {
        kill(pid_, signalNumber);
    }
}

void BusDaemon::Kill()
{
    Signal(SIGKILL);
    if (pid_ > 0)
    {
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

PrivateBus::PrivateBus(size_t held)
{
    char pattern[] = "/tmp/qdbbus.XXXXXX";
    const char *made = mkdtemp(pattern);
    directory_ = made == nullptr ? "" : made;
    const std::string socket = directory_ + "/socket";
    const std::string configuration = directory_ + "/bus.conf";
    std::ofstream(configuration) << Configuration(socket, held);
    Restart();
    address_ = "unix:path=" + socket;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateBus::~PrivateBus()
{
    Kill();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void PrivateBus::Restart()
{
    daemon_.emplace(directory_ + "/bus.conf", directory_ + "/socket");
}

void PrivateBus::Freeze() const
{
    daemon_->Signal(SIGSTOP);
}

void PrivateBus::Thaw() const
{
    daemon_->Signal(SIGCONT);
}

void PrivateBus::Kill()
{
    daemon_->Kill();
}

} // namespace qdb::test
