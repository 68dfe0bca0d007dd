// Match rules and their handlers. See bus.hpp for what this folder is.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <sdbusplus/bus.hpp>
#include <sdbusplus/message.hpp>
#include <string>
#include <utility>

namespace sdbusplus::bus::match
{

// While it lives, the handler runs for each message that the rule matches, on
// the thread that processes the connection, and whatever it returns is dropped.
// A rule that can't be added leaves a match that never comes true.
class match
{
  public:
    using callback_t = std::function<void(message_t &)>;

    match(bus_t &bus, const std::string &rule, callback_t handler)
        : handler_(std::make_unique<callback_t>(std::move(handler)))
    {
        (void)sd_bus_add_match(bus.get(), &slot_, rule.c_str(), Dispatch,
                               handler_.get());
    }
    ~match()
    {
        sd_bus_slot_unref(slot_);
    }
    match(const match &) = delete;
    match &operator=(const match &) = delete;

  private:
    // 0 in any case, so that other matches see the message, too.
    static int Dispatch(sd_bus_message *received, void *handler,
                        sd_bus_error * /*error*/)
    {
        message_t message(received);
        (*static_cast<callback_t *>(handler))(message);
        return 0;
    }

    std::unique_ptr<callback_t> handler_;
    sd_bus_slot *slot_ = nullptr;
};

} // namespace sdbusplus::bus::match

namespace sdbusplus::bus
{
using match_t = match::match;
} // namespace sdbusplus::bus
