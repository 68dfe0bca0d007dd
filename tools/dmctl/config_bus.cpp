#include "tools/dmctl/config_bus.h"

#include "tools/dmctl/client.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace qdb
{

namespace
{

constexpr char kInterfacePrefix[] = "com.vexo.tarnu.Config.";
constexpr const char *kAttributeInterfaces[] = {
    "CfgIntAttribute",
    "CfgStrAttribute",
    "CfgEnumAttribute",
    "CfgPasswdAttribute",
};

// Of signals that are about no attribute in particular.
constexpr char kManagerPath[] = "/com/vexo/tarnu/Config";

struct Drop
{
    void operator()(sd_bus_message *message) const
    {
        sd_bus_message_unref(message);
    }
};

// What a call of sd-bus returned, unless it failed.
int Checked(int result, const std::string &what)
{
    if (result < 0)
    {
        throw std::runtime_error(what + ": " + strerror(-result));
    }
    return result;
}

void CheckSent(int result, const std::string &member)
{
    Checked(result, "can't send " + member);
}

NoConnection Unreachable(int result)
{
    const char *address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return NoConnection(
        std::string("the system bus") + (address == nullptr ? "" : " at ") +
        (address == nullptr ? "" : address) + ": " + strerror(-result));
}

std::string InterfaceOf(const json_t *attribute)
{
    return kInterfacePrefix + TextOf(attribute, "interface");
}

// Adds a property with its value; false, and nothing added, when the value has
// no simple form.
bool AppendProperty(sd_bus_message *signal, const char *name,
                    const json_t *value)
{
    switch (json_typeof(value))
    {
    case JSON_STRING:
        Checked(sd_bus_message_append(signal, "{sv}", name, "s",
                                      json_string_value(value)),
                name);
        return true;
    case JSON_INTEGER:
        Checked(sd_bus_message_append(signal, "{sv}", name, "x",
                                      int64_t{json_integer_value(value)}),
                name);
        return true;
    default:
        return false;
    }
}

// The changed properties, and the names of those whose values aren't told.
void AppendChanges(sd_bus_message *signal, json_t *values)
{
    std::vector<const char *> untold;
    Checked(sd_bus_message_open_container(signal, 'a', "{sv}"), "changes");
    const char *name;
    json_t *value;
    json_object_foreach(values, name, value)
    {
        if (!AppendProperty(signal, name, value))
        {
            untold.push_back(name);
        }
    }
    Checked(sd_bus_message_close_container(signal), "changes");
    Checked(sd_bus_message_open_container(signal, 'a', "s"), "changes");
    for (const char *one : untold)
    {
        Checked(sd_bus_message_append(signal, "s", one), one);
    }
    Checked(sd_bus_message_close_container(signal), "changes");
}

} // namespace

ConfigBus::ConfigBus()
{
    sd_bus *opened = nullptr;
    int result = sd_bus_open_system(&opened);
    mBus.reset(opened);
    const char *name = nullptr;
    // Only an answer tells that somebody is there.
    if (result >= 0)
    {
        result = sd_bus_get_unique_name(opened, &name);
    }
    if (result < 0)
    {
        throw Unreachable(result);
    }
}

template <typename... Arguments>
void ConfigBus::Send(const std::string &path, const std::string &interfaceName,
                     const char *member, const char *types,
                     Arguments... arguments)
{
    CheckSent(sd_bus_emit_signal(mBus.get(), path.c_str(),
                                 interfaceName.c_str(), member, types,
                                 arguments...),
              member);
    CheckSent(sd_bus_flush(mBus.get()), member);
}

void ConfigBus::SendAdded(const json_t *attribute)
{
    const std::string path = TextOf(attribute, "path");
    Send(path, "org.freedesktop.DBus.ObjectManager", "InterfacesAdded",
         "oa{sa{sv}}", path.c_str(), 1, InterfaceOf(attribute).c_str(), 1,
         "oid", "u", static_cast<uint32_t>(NumberOf(attribute, "oid")));
}

void ConfigBus::SendChanged(const json_t *attribute, json_t *values)
{
    constexpr char kFailure[] = "can't send PropertiesChanged";
    sd_bus_message *made = nullptr;
    Checked(sd_bus_message_new_signal(
                mBus.get(), &made, TextOf(attribute, "path").c_str(),
                "org.freedesktop.DBus.Properties", "PropertiesChanged"),
            kFailure);
    const std::unique_ptr<sd_bus_message, Drop> signal(made);
    Checked(sd_bus_message_append(made, "s", InterfaceOf(attribute).c_str()),
            kFailure);
    AppendChanges(made, values);
    Checked(sd_bus_send(mBus.get(), made, nullptr), kFailure);
    Checked(sd_bus_flush(mBus.get()), kFailure);
}

void ConfigBus::SendRemoved(const json_t *attribute)
{
    Send(TextOf(attribute, "path"), InterfaceOf(attribute),
         "qdb_object_removed", "us",
         static_cast<uint32_t>(NumberOf(attribute, "oid")),
         TextOf(attribute, "key").c_str());
}

void ConfigBus::SendCommit(const std::string &interfaceName)
{
    Send(kManagerPath, interfaceName, "qdb_bulk_commit", "");
}

void ConfigBus::SendRawData(const std::string &key, const std::string &path)
{
    Send(kManagerPath, kManagerName, "RawDataUpdated", "ss", key.c_str(),
         path.c_str());
}

void ConfigBus::TakeName()
{
    const int result = sd_bus_request_name(mBus.get(), kManagerName, 0);
    if (result == -EEXIST)
    {
        throw std::runtime_error(std::string("somebody else has the name ") +
                                 kManagerName);
    }
    Checked(result, kManagerName);
}

void ConfigBus::Answer()
{
    int result = 1;
    while (result > 0)
    {
        result = sd_bus_process(mBus.get(), nullptr);
    }
    if (result < 0)
    {
        throw NoConnection("the system bus is gone");
    }
}

void ConfigBus::GiveUpName()
{
    Checked(sd_bus_release_name(mBus.get(), kManagerName), kManagerName);
}

std::vector<std::string>
AttributeInterfaces(const std::vector<std::string> &names)
{
    std::vector<std::string> fullNames;
    for (const char *known : kAttributeInterfaces)
    {
        if (names.empty())
        {
            fullNames.push_back(std::string(kInterfacePrefix) + known);
        }
    }
    for (const std::string &name : names)
    {
        const std::string last = name.substr(name.find_last_of('.') + 1);
        if (std::ranges::find(kAttributeInterfaces, last) ==
            std::end(kAttributeInterfaces))
        {
            throw std::invalid_argument(name +
                                        " isn't an attribute's interface");
        }
        fullNames.push_back(kInterfacePrefix + last);
    }
    return fullNames;
}

} // namespace qdb
