#include "client/change_bus.h"

#include <sys/epoll.h>

#include <cstring>
#include <iterator>
#include <utility>

namespace qdb::client
{
namespace
{

constexpr char kMatch[] =
    "type='signal',path='/com/vexo/tarnu/qdb/changeeventnotify',"
    "interface='com.vexo.tarnu.qdb.changeeventnotify'";
// Of unique names that end: no well-known one is the service's.
constexpr char kOwnerMatch[] =
    "type='signal',sender='org.freedesktop.DBus',"
    "path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg2=''";

struct Member
{
    const char *name;
    SignalKind kind;
};
constexpr Member kMembers[] = {
    {"Vexo_qdb_Resource_Added", SignalKind::Added},
    {"Vexo_qdb_Resource_Changed", SignalKind::Changed},
    {"Vexo_qdb_Resource_Removed", SignalKind::Removed},
};

} // namespace

ChangeBus::ChangeBus(std::string address) : address_(std::move(address))
{
}

bool ChangeBus::Connect()
{
    if (bus_ != nullptr)
    {
        return true;
    }
    sd_bus *made = nullptr;
    int result = sd_bus_new(&made);
    bus_.reset(made);
    const char *installed = "unix:path=/run/dbus/system_bus_socket";
    const char *given = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    const std::string address = !address_.empty()  ? address_
                                : given != nullptr ? given
                                                   : installed;
    result = result < 0 ? result : sd_bus_set_address(made, address.c_str());
    result = result < 0 ? result : sd_bus_set_bus_client(made, 1);
    result = result < 0 ? result : sd_bus_start(made);
    if (result < 0 || !Subscribe())
    {
        bus_.reset();
        return false;
    }
    return true;
}

bool ChangeBus::Subscribe()
{
    isSubscribed_ = false;
    return sd_bus_add_match_async(bus_.get(), nullptr, kOwnerMatch, OnOwner,
                                  nullptr, this) >= 0 &&
           sd_bus_add_match_async(bus_.get(), nullptr, kMatch, OnChange,
                                  OnSubscribed, this) >= 0;
}

bool ChangeBus::Process(int most, bool *pIsMore)
{
    *pIsMore = false;
    int result = 1;
    for (int i = 0; i < most && result > 0; ++i)
    {
        result = sd_bus_process(bus_.get(), nullptr);
    }
    *pIsMore = result > 0;
    if (result >= 0)
    {
        return true;
    }
    bus_.reset();
    signals_.clear();
    ForgetService();
    isSubscribed_ = false;
    reason_ = QDB_NEW_BUS;
    return false;
}

int ChangeBus::OnSubscribed(sd_bus_message *reply, void *self, sd_bus_error *)
{
    static_cast<ChangeBus *>(self)->isSubscribed_ =
        sd_bus_message_get_error(reply) == nullptr;
    return 0;
}

int ChangeBus::OnOwner(sd_bus_message *message, void *self, sd_bus_error *)
{
    auto *bus = static_cast<ChangeBus *>(self);
    const char *name = nullptr;
    if (sd_bus_message_read(message, "s", &name) >= 0 && bus->sender_ == name)
    {
        bus->isServiceGone_ = true;
    }
    return 0;
}

// An answer about one who has been followed by another since is no news.
int ChangeBus::OnHasOwner(sd_bus_message *reply, void *self, sd_bus_error *)
{
    auto *bus = static_cast<ChangeBus *>(self);
    int hasOwner = 1;
    if (sd_bus_message_read(reply, "b", &hasOwner) >= 0 && hasOwner == 0 &&
        bus->sender_ == bus->asked_)
    {
        bus->isServiceGone_ = true;
    }
    return 0;
}

int ChangeBus::OnChange(sd_bus_message *message, void *self, sd_bus_error *)
{
    const char *name = sd_bus_message_get_member(message);
    for (const Member &member : kMembers)
    {
        if (name != nullptr && std::strcmp(name, member.name) == 0)
        {
            static_cast<ChangeBus *>(self)->Take(message, member.kind);
        }
    }
    return 0;
}

void ChangeBus::Take(sd_bus_message *message, SignalKind kind)
{
    const char *sender = sd_bus_message_get_sender(message);
    uint64_t serial = 0;
    sd_bus_message_get_cookie(message, &serial);
    NoteSender(sender == nullptr ? "" : sender, serial);
    const char *text = nullptr;
    if (sd_bus_message_read(message, "s", &text) >= 0)
    {
        signals_.push_back({kind, text});
    }
}

void ChangeBus::NoteSender(const char *sender, uint64_t serial)
{
    constexpr uint64_t kSerials = uint64_t{1} << 32; // they begin anew then
    if (sender_.empty())
    {
        sender_ = sender;
    }
    else if (sender_ != sender)
    {
        sender_ = sender;
        reason_ = QDB_NEW_SERVICE;
    }
    else if (serial != serial_ + 1 && (serial_ + 1) % kSerials != 0)
    {
        reason_ = QDB_LOST_SIGNALS;
    }
    serial_ = serial;
    isServiceGone_ = false;
    hasSpoken_ = true;
    isUnchecked_ = true;
}

void ChangeBus::CheckService()
{
    if (std::exchange(hasSpoken_, false) || !isUnchecked_ || !isSubscribed_)
    {
        return;
    }
    isUnchecked_ = false;
    asked_ = sender_;
    // Refused for want of memory it is the same as without an answer.
    (void)sd_bus_call_method_async(bus_.get(), nullptr, "org.freedesktop.DBus",
                                   "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus", "NameHasOwner",
                                   OnHasOwner, this, "s", asked_.c_str());
}

void ChangeBus::ForgetService()
{
    sender_.clear();
    isServiceGone_ = false;
}

std::vector<RawSignal> ChangeBus::TakeSignals()
{
    return std::exchange(signals_, {});
}

int ChangeBus::TakeReason()
{
    return std::exchange(reason_, 0);
}

int ChangeBus::Descriptor() const
{
    return bus_ == nullptr ? -1 : sd_bus_get_fd(bus_.get());
}

uint32_t ChangeBus::Events() const
{
    const int events = bus_ == nullptr ? 0 : sd_bus_get_events(bus_.get());
    return events < 0 ? EPOLLIN : static_cast<uint32_t>(events);
}

uint64_t ChangeBus::Deadline() const
{
    uint64_t deadline = UINT64_MAX;
    if (bus_ != nullptr)
    {
        sd_bus_get_timeout(bus_.get(), &deadline);
    }
    return deadline;
}

} // namespace qdb::client
