#include "tests/chaos/stranger.h"

#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string>

namespace qdb::chaos
{
namespace
{

constexpr char kManager[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kAttribute[] = "com.vexo.tarnu.Config.CfgStrAttribute";
constexpr char kLoad[] = "com.vexo.tarnu.Config.Forged";
constexpr uint32_t kNobody = 0x7F000000; // and above: OIDs of nothing

int Checked(int result)
{
    if (result < 0)
    {
        throw std::runtime_error(std::string("the stranger: ") +
                                 std::strerror(-result));
    }
    return result;
}

// A message's body; `text` is something between empty and a megabyte.
using Fill = int (*)(sd_bus_message *message, uint32_t number,
                     const std::string &text);

int AppendNothing(sd_bus_message * /*message*/, uint32_t /*number*/,
                  const std::string & /*text*/)
{
    return 0;
}

int AppendNumber(sd_bus_message *message, uint32_t number,
                 const std::string & /*text*/)
{
    return sd_bus_message_append(message, "u", kNobody + number);
}

int AppendText(sd_bus_message *message, uint32_t /*number*/,
               const std::string &text)
{
    return sd_bus_message_append(message, "s", text.c_str());
}

int AppendTexts(sd_bus_message *message, uint32_t /*number*/,
                const std::string &text)
{
    return sd_bus_message_append(message, "ss", text.c_str(), "/etc/shadow");
}

int AppendRemoved(sd_bus_message *message, uint32_t number,
                  const std::string &text)
{
    return sd_bus_message_append(message, "us", kNobody + number, text.c_str());
}

int AppendChanged(sd_bus_message *message, uint32_t number,
                  const std::string &text)
{
    return sd_bus_message_append(message, "sa{sv}as", kAttribute, 2, "Speed",
                                 "u", number, "Name", "s", text.c_str(), 0);
}

int AppendAdded(sd_bus_message *message, uint32_t number,
                const std::string & /*text*/)
{
    return sd_bus_message_append(message, "oa{sa{sv}}", "/forged", 1,
                                 kAttribute, 1, "oid", "u", kNobody + number);
}

// The oid is no number.
int AppendOddAdded(sd_bus_message *message, uint32_t /*number*/,
                   const std::string &text)
{
    return sd_bus_message_append(message, "oa{sa{sv}}", "/forged", 1,
                                 kAttribute, 1, "oid", "s", text.c_str());
}

struct Shape
{
    const char *interface;
    const char *member;
    Fill fill;
};

constexpr Shape kShapes[] = {
    {kManager, "InterfacesAdded", AppendNothing},
    {kManager, "InterfacesAdded", AppendNumber},
    {kManager, "InterfacesAdded", AppendText},
    {kManager, "InterfacesAdded", AppendAdded},
    {kManager, "InterfacesAdded", AppendOddAdded},
    {kAttribute, "InterfacesAdded", AppendRemoved},
    {kAttribute, "qdb_object_removed", AppendNothing},
    {kAttribute, "qdb_object_removed", AppendRemoved},
    {kAttribute, "qdb_object_removed", AppendTexts},
    {kProperties, "PropertiesChanged", AppendChanged},
    {kProperties, "PropertiesChanged", AppendTexts},
    {kProperties, "PropertiesChanged", AppendNumber},
    {kLoad, "qdb_bulk_commit", AppendNothing},
    {kLoad, "qdb_bulk_commit", AppendText},
    {kLoad, "RawDataUpdated", AppendTexts},
    {kLoad, "RawDataUpdated", AppendRemoved},
    {kLoad, "NameOwnerChanged", AppendTexts},
};

struct Unref
{
    void operator()(sd_bus_message *message) const
    {
        sd_bus_message_unref(message);
    }
};
using MessagePtr = std::unique_ptr<sd_bus_message, Unref>;

MessagePtr NewSignal(sd_bus *bus, const std::string &path,
                     const char *interface, const char *member)
{
    sd_bus_message *message = nullptr;
    Checked(sd_bus_message_new_signal(bus, &message, path.c_str(), interface,
                                      member));
    return MessagePtr(message);
}

} // namespace

Stranger::Stranger()
{
    sd_bus *bus = nullptr;
    Checked(sd_bus_open_system(&bus));
    bus_.reset(bus);
    AwaitBus(); // it closes connections that say nothing for long
}

void Stranger::Bother(uint32_t choice)
{
    constexpr uint32_t kLongest = 1 << 20;
    const Shape &shape = kShapes[choice % std::size(kShapes)];
    const uint32_t number = choice / static_cast<uint32_t>(std::size(kShapes));
    // Mostly short; one in 32 has up to a megabyte.
    const uint32_t length = number % 32 == 0 ? number % kLongest : number % 64;
    const std::string path = "/forged" + std::string(number % 7 * 999, 'x');
    const MessagePtr message =
        NewSignal(bus_.get(), path, shape.interface, shape.member);
    Checked(shape.fill(message.get(), number, std::string(length, 'x')));
    Send(message.get());
}

void Stranger::Flood()
{
    constexpr int kInterfaces = 5000;
    const MessagePtr message =
        NewSignal(bus_.get(), "/forged" + std::string(60000, 'x'), kManager,
                  "InterfacesAdded");
    Checked(sd_bus_message_append(message.get(), "o", "/forged"));
    Checked(sd_bus_message_open_container(message.get(), 'a', "{sa{sv}}"));
    for (int i = 0; i < kInterfaces; ++i)
    {
        const std::string name = "com.vexo.Forged" + std::to_string(i);
        Checked(sd_bus_message_append(message.get(), "{sa{sv}}", name.c_str(),
                                      1, "oid", "u", kNobody));
    }
    Checked(sd_bus_message_close_container(message.get()));
    Send(message.get());
}

void Stranger::Send(sd_bus_message *message)
{
    Checked(sd_bus_send(bus_.get(), message, nullptr));
    AwaitBus();
}

// It has passed on all that was sent when it answers what stands behind.
void Stranger::AwaitBus()
{
    Checked(sd_bus_call_method(bus_.get(), "org.freedesktop.DBus",
                               "/org/freedesktop/DBus", "org.freedesktop.DBus",
                               "GetId", nullptr, nullptr, ""));
}

} // namespace qdb::chaos
