// The configuration manager's part on the system bus: its signals and its name.
//
// Everything is done when a call returns: a signal has left for the bus, so
// that the program may end. The service takes the path that a signal comes
// from as the attribute's own, so each is sent from there, `InterfacesAdded`
// too.
#pragma once

#include "tools/dmctl/json.h"

#include <systemd/sd-bus.h>

#include <memory>
#include <string>
#include <vector>

namespace qdb
{

inline constexpr char kManagerName[] = "com.vexo.tarnu.CfgMgr";

class ConfigBus
{
  public:
    // Connects to the system bus and waits until it has answered. Throws
    // NoConnection.
    ConfigBus();

    // The signals. An attribute is told as the stand-in describes it. Each
    // throws std::runtime_error when it can't be made or sent.
    void SendAdded(const json_t *attribute);
    void SendChanged(const json_t *attribute, json_t *values);
    void SendRemoved(const json_t *attribute);
    void SendCommit(const std::string &interfaceName);
    void SendRawData(const std::string &key, const std::string &path);

    // Throws std::runtime_error when the name can't be had, as while somebody
    // else has it.
    void TakeName();

    // The bus has heard of it when the call returns; the end of the program
    // alone it notices some time later.
    void GiveUpName();

    // Takes what has come from the bus; to be called now and then while the
    // name is held. Throws NoConnection when the bus is gone.
    void Answer();

  private:
    struct Close
    {
        void operator()(sd_bus *bus) const
        {
            sd_bus_flush_close_unref(bus);
        }
    };

    template <typename... Arguments>
    void Send(const std::string &path, const std::string &interfaceName,
              const char *member, const char *types, Arguments... arguments);

    std::unique_ptr<sd_bus, Close> mBus;
};

// The full names of attribute interfaces given with or without their prefix; of
// all four when none is given. Throws std::invalid_argument for another name.
std::vector<std::string>
AttributeInterfaces(const std::vector<std::string> &names);

} // namespace qdb
