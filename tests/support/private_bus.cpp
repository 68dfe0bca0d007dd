#include "tests/support/private_bus.h"

#include "tests/support/wait.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

extern char **environ;

namespace qdb::test
{
namespace
{

std::string Configuration(const std::string &socket)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus "
           "Configuration 1.0//EN\" "
           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n<type>system</type>\n<listen>unix:path=" +
           socket +
           "</listen>\n<auth>EXTERNAL</auth>\n<policy context=\"default\">\n"
           "<allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
           "<allow eavesdrop=\"true\"/>\n<allow own=\"*\"/>\n</policy>\n"
           "<limit name=\"max_outgoing_bytes\">268435456</limit>\n"
           "</busconfig>\n";
}

} // namespace

PrivateBus::PrivateBus()
{
    char pattern[] = "/tmp/qdbbus.XXXXXX";
    const char *made = mkdtemp(pattern);
    directory_ = made == nullptr ? "" : made;
    const std::string socket = directory_ + "/socket";
    const std::string config = directory_ + "/bus.conf";
    std::ofstream(config) << Configuration(socket);
    const std::string option = "--config-file=" + config;
    // The daemon ends with this process, however that ends.
    const char *arguments[] = {"setpriv",     "--pdeathsig",  "KILL",
                               "dbus-daemon", option.c_str(), "--nofork",
                               "--nopidfile", nullptr};
    EXPECT_EQ(posix_spawnp(&pid_, "setpriv", nullptr, nullptr,
                           const_cast<char **>(arguments), environ),
              0);
    struct stat info = {};
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            return stat(socket.c_str(), &info) == 0;
        }));
    address_ = "unix:path=" + socket;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateBus::~PrivateBus()
{
    Kill();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void PrivateBus::Freeze() const
{
    if (pid_ > 0)
    {
        kill(pid_, SIGSTOP);
    }
}

void PrivateBus::Thaw() const
{
    if (pid_ > 0)
    {
        kill(pid_, SIGCONT);
    }
}

void PrivateBus::Kill()
{
    if (pid_ > 0)
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

} // namespace qdb::test
