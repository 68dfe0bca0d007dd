// Signals of other services, at each handler. An input is the handler, the
// message's head, and its body: values of any types, which sd-bus marshals, or
// bytes, which come by a socket behind a head that is sound. sd-bus looks at a
// body only where it is read.
#include "busintake/handlers.h"
#include "config/config_objects.h"
#include "core/state.h"
#include "fuzz/support.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <memory>

namespace qdb::fuzz
{
namespace
{

constexpr int (*kHandlers[])(sdbusplus::message_t &) = {
    properties_changed, object_removed,   interfaces_added,
    bulk_commit,        raw_data_updated, cfgmgr_name_owner_changed};

constexpr const char *kPaths[] = {"/", "/com/vexo/tarnu/Config/Attributes/a",
                                  "/x"};
constexpr const char *kInterfaces[] = {kIntInterface, kStrInterface, "x.y"};
constexpr const char *kMembers[] = {"InterfacesAdded",   "qdb_object_removed",
                                    "PropertiesChanged", "qdb_bulk_commit",
                                    "RawDataUpdated",    "X"};
constexpr const char *kTexts[] = {"oid", kIntInterface, kConfigService, "/a"};
// What the handlers read, and what is like it.
constexpr const char *kBodies[] = {
    "oa{sa{sv}}", "us", "ss", "sss", "sa{sv}as", "s",
    "u",          "",   "o",  "su",  "oa{sv}",   "oa{sa{su}}",
    "oa{sa{ss}}", "v",  "as", "g",   "oas"};
constexpr const char *kVariants[] = {"u", "s",  "o", "t", "i",    "b",
                                     "v", "as", "d", "y", "a{sv}"};

struct Unref
{
    void operator()(sd_bus *bus) const
    {
        sd_bus_close_unref(bus);
    }
    void operator()(sd_bus_message *message) const
    {
        sd_bus_message_unref(message);
    }
};
using BusPtr = std::unique_ptr<sd_bus, Unref>;
using MessagePtr = std::unique_ptr<sd_bus_message, Unref>;
using Handler = int (*)(sdbusplus::message_t &);

Handler gHandler = nullptr; // of the input

int OnMessage(sd_bus_message *message, void * /*data*/, sd_bus_error * /*out*/)
{
    sdbusplus::message_t wrapped(message);
    (void)gHandler(wrapped);
    return 1;
}

// A connection over a socket pair, and the socket of its other end.
struct Connection
{
    BusPtr bus;
    BusPtr other;
    int socket = -1;

    bool IsOpen() const
    {
        return bus != nullptr && sd_bus_is_open(bus.get()) > 0;
    }
};

BusPtr Join(int fd, bool isServer)
{
    sd_bus *made = nullptr;
    Require(sd_bus_new(&made) >= 0, "a bus");
    BusPtr bus(made);
    sd_id128_t id = {};
    sd_id128_randomize(&id);
    Require(sd_bus_set_fd(made, fd, fd) >= 0 &&
                (!isServer || sd_bus_set_server(made, 1, id) >= 0) &&
                sd_bus_start(made) >= 0,
            "a connection");
    return bus;
}

Connection &Connect()
{
    static Connection connection;
    if (!connection.IsOpen())
    {
        connection = {};
        int fds[2] = {};
        Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC,
                           0, fds) == 0,
                "a socket pair");
        connection.socket = fds[1];
        connection.bus = Join(fds[0], false);
        connection.other = Join(fds[1], true);
        while (sd_bus_is_ready(connection.bus.get()) == 0)
        {
            sd_bus_process(connection.other.get(), nullptr);
            sd_bus_process(connection.bus.get(), nullptr);
        }
        Require(connection.IsOpen(), "an open connection");
        sd_bus_add_filter(connection.bus.get(), nullptr, OnMessage, nullptr);
    }
    return connection;
}

// --- Bodies of values ------------------------------------------------------

std::string Text(Input *pInput)
{
    return pInput->Byte() % 2 == 1 ? pInput->Text() : pInput->OneOf(kTexts);
}

// The end of the complete type at the beginning of a signature.
size_t TypeSize(std::string_view signature)
{
    if (signature[0] == 'a')
    {
        return 1 + TypeSize(signature.substr(1));
    }
    if (signature[0] == '{')
    {
        return 2 + TypeSize(signature.substr(2)) + 1;
    }
    return 1;
}

void Append(sd_bus_message *message, std::string_view signature, Input *pInput,
            int depth);

void AppendContainer(sd_bus_message *message, std::string_view type,
                     Input *pInput, int depth)
{
    const bool isArray = type[0] == 'a';
    const std::string content(isArray     ? type.substr(1)
                              : depth > 4 ? "u"
                                          : pInput->OneOf(kVariants));
    sd_bus_message_open_container(message, isArray ? 'a' : 'v',
                                  content.c_str());
    for (int left = isArray ? pInput->Byte() % 4 : 1; left > 0; --left)
    {
        Append(message, content, pInput, depth + 1);
    }
    sd_bus_message_close_container(message);
}

void AppendOne(sd_bus_message *message, std::string_view type, Input *pInput,
               int depth)
{
    if (type[0] == 'a' || type[0] == 'v')
    {
        AppendContainer(message, type, pInput, depth);
    }
    else if (type[0] == '{')
    {
        const std::string content(type.substr(1, type.size() - 2));
        sd_bus_message_open_container(message, 'e', content.c_str());
        Append(message, content, pInput, depth);
        sd_bus_message_close_container(message);
    }
    else if (type[0] == 's' || type[0] == 'o' || type[0] == 'g')
    {
        sd_bus_message_append_basic(message, type[0], Text(pInput).c_str());
    }
    else
    {
        const uint64_t number = pInput->Dword();
        sd_bus_message_append_basic(message, type[0], &number);
    }
}

// What sd-bus refuses isn't in the message, and neither is what follows.
void Append(sd_bus_message *message, std::string_view signature, Input *pInput,
            int depth)
{
    while (!signature.empty())
    {
        const size_t size = TypeSize(signature);
        AppendOne(message, signature.substr(0, size), pInput, depth);
        signature.remove_prefix(size);
    }
}

void HandleValues(Input *pInput)
{
    sd_bus *bus = Connect().bus.get();
    sd_bus_message *made = nullptr;
    const uint8_t head = pInput->Byte() % 8;
    const char *path = pInput->OneOf(kPaths);
    const char *interface = pInput->OneOf(kInterfaces);
    const char *member = pInput->OneOf(kMembers);
    if (head == 0)
    {
        sd_bus_message_new(bus, &made, SD_BUS_MESSAGE_SIGNAL);
    }
    else
    {
        // A call, which need not have an interface. No handler sees the kind.
        sd_bus_message_new_method_call(bus, &made, nullptr, path,
                                       head == 1 ? nullptr : interface, member);
    }
    const MessagePtr message(made);
    Append(made, pInput->OneOf(kBodies), pInput, 0);
    if (sd_bus_message_seal(made, 1, 0) >= 0)
    {
        OnMessage(made, nullptr, nullptr);
    }
}

// --- Bodies of bytes --------------------------------------------------------

// A header field: its code and its value, a text of that type.
void AppendField(std::string *pTo, char code, char type, std::string_view text)
{
    pTo->resize((pTo->size() + 7) / 8 * 8);
    pTo->append({code, 1, type, '\0'});
    if (type == 'g')
    {
        pTo->push_back(static_cast<char>(text.size()));
    }
    else
    {
        const auto size = static_cast<uint32_t>(text.size());
        pTo->append(reinterpret_cast<const char *>(&size), sizeof(size));
    }
    pTo->append(text).append(1, '\0');
}

void HandleBytes(Input *pInput)
{
    constexpr size_t kHead = 16;
    std::string bytes("l\4\0\1", 4);
    bytes.resize(kHead);
    AppendField(&bytes, 1, 'o', pInput->OneOf(kPaths));
    AppendField(&bytes, 2, 's', pInput->OneOf(kInterfaces));
    AppendField(&bytes, 3, 's', pInput->OneOf(kMembers));
    const std::string_view signature = pInput->OneOf(kBodies);
    AppendField(&bytes, 8, 'g', signature);
    const Bytes body = signature.empty() ? Bytes() : pInput->Rest();
    const uint32_t words[] = {static_cast<uint32_t>(body.size()), 1,
                              static_cast<uint32_t>(bytes.size() - kHead)};
    std::memcpy(&bytes[4], words, sizeof(words));
    bytes.resize((bytes.size() + 7) / 8 * 8);
    bytes.append(body.begin(), body.end());

    const Connection &connection = Connect();
    Require(write(connection.socket, bytes.data(), bytes.size()) ==
                static_cast<ssize_t>(bytes.size()),
            "a written message");
    while (sd_bus_process(connection.bus.get(), nullptr) > 0)
    {
    }
}

// What the workers rely on.
void RequireWhole(const DataEventHeader &record)
{
    const bool isRaw = record.evtType == ZO_EVENT_RAW_DATA_UPDATE;
    Require(isRaw || record.evtType == DATA_EVENT_DBUS_TO_QDB, "its type");
    const auto kind = RecordWord(record, kBusEventTypeAt);
    if (!isRaw && kind == DATA_EVENT_POP_UNLOADED)
    {
        return;
    }
    for (const uint32_t at : {isRaw ? kRawKeyOffsetAt : kBusPathOffsetAt,
                              isRaw ? kRawPathOffsetAt : kBusInterfaceOffsetAt})
    {
        const auto offset = RecordWord(record, at);
        Require(offset && RecordText(record, *offset) != nullptr, "its texts");
    }
}

} // namespace

void RunBusMessages(Bytes bytes)
{
    const MirrorInMemory mirror;
    Input input(bytes);
    gHandler = input.OneOf(kHandlers);
    input.Byte() % 2 == 1 ? HandleBytes(&input) : HandleValues(&input);
    while (QdbEventQSize > 0)
    {
        const EventNodePtr node(QdbdeQueue(gQdbEventQueue));
        RequireWhole(*node->data);
    }
}

} // namespace qdb::fuzz
