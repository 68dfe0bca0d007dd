#include "bench/bus.h"

#include "bench/wait.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace qdb::bench
{
namespace
{

// Bursts wait in the daemon and are never refused.
std::string Configuration(const std::string &address)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus "
           "Configuration 1.0//EN\" "
           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>system</type><listen>" +
           address +
           "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
           "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
           "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>"
           "<limit name=\"max_outgoing_bytes\">268435456</limit></busconfig>";
}

int RunDaemon(const std::string &directory)
{
    const std::string file = directory + "/bus.conf";
    const std::string address = "unix:path=" + directory + "/socket";
    std::ofstream(file) << Configuration(address);
    const std::string option = "--config-file=" + file;
    execlp("dbus-daemon", "dbus-daemon", option.c_str(), "--nofork",
           "--nopidfile", nullptr);
    throw std::runtime_error("can't run dbus-daemon");
}

bool IsServed()
{
    sd_bus *bus = nullptr;
    const char *name = nullptr;
    const bool isServed = sd_bus_open_system(&bus) >= 0 &&
                          sd_bus_get_unique_name(bus, &name) >= 0;
    sd_bus_flush_close_unref(bus);
    return isServed;
}

} // namespace

Bus::Bus()
    : daemon_(
          [this]
          {
              return RunDaemon(directory_.Path());
          })
{
    const std::string address = "unix:path=" + directory_.Path() + "/socket";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    Await("the bus", IsServed);
}

} // namespace qdb::bench
