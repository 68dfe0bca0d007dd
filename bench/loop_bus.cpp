#include "bench/loop_bus.h"

#include "publish/bus_connection.h"

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

namespace qdb::bench
{
namespace
{

void CheckBus(int result)
{
    if (result < 0)
    {
        throw std::runtime_error(std::string("the bus: ") +
                                 std::strerror(-result));
    }
}

struct UnrefMessage
{
    void operator()(sd_bus_message *message) const
    {
        sd_bus_message_unref(message);
    }
};

} // namespace

// Waits for its name, since the daemon closes a connection that nobody has
// driven for half a minute, and objects may take longer to make.
LoopBus::LoopBus()
{
    const char *name = nullptr;
    CheckBus(sd_bus_open_system(&bus_));
    CheckBus(sd_bus_get_unique_name(bus_, &name));
}

LoopBus::~LoopBus()
{
    sd_bus_flush_close_unref(bus_);
}

// Flushed, because nobody else sends what the socket didn't take; when it took
// all, that costs nothing.
void LoopBus::Send(int kind, const char *text) const
{
    sd_bus_message *made = nullptr;
    CheckBus(sd_bus_message_new_signal(bus_, &made, kSignalPath,
                                       kSignalInterface, SignalMember(kind)));
    const std::unique_ptr<sd_bus_message, UnrefMessage> message(made);
    CheckBus(sd_bus_message_append(made, "s", text));
    CheckBus(sd_bus_send(bus_, made, nullptr));
    CheckBus(sd_bus_flush(bus_));
}

} // namespace qdb::bench
