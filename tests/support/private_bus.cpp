#include "tests/support/private_bus.h"

#include "tests/support/wait.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

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
    Start({"dbus-daemon", "--config-file=" + configuration, "--nofork",
           "--nopidfile"},
          socket + ".log");
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            return IsServed(socket);
        }));
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
    daemon_.reset();
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
    daemon_->Signal(SIGKILL);
    daemon_->WaitExit();
}

} // namespace qdb::test
