// A thin stand-in for the sdbusplus library: the few classes of it that the
// bus intake uses, with the same names and error texts, over sd-bus. Where the
// library is installed the build can take that instead, and then nothing of
// this folder is used; busintake/bus_api.h lists the whole surface.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <sdbusplus/exception.hpp>

namespace sdbusplus::bus
{

// A connection, closed with its owner. Holds none when it could not be made;
// the calls then fail.
class bus
{
  public:
    // Takes the reference over.
    explicit bus(sd_bus *owned) : bus_(owned)
    {
    }

    sd_bus *get() const
    {
        return bus_.get();
    }

    // Handles one message, if there is one. Throws SdBusError when the
    // connection is lost.
    void process_discard()
    {
        if (const int result = sd_bus_process(get(), nullptr); result < 0)
        {
            throw exception::SdBusError(-result, "sd_bus_process discard");
        }
    }

    // Waits until there is something to process, at most so many microseconds.
    void wait(uint64_t timeout_us)
    {
        (void)sd_bus_wait(get(), timeout_us);
    }

  private:
    struct Close
    {
        void operator()(sd_bus *connection) const
        {
            sd_bus_flush_close_unref(connection);
        }
    };
    std::unique_ptr<sd_bus, Close> bus_;
};

// This thread's own connection to the system bus.
inline bus new_default_system()
{
    sd_bus *connection = nullptr;
    (void)sd_bus_default_system(&connection);
    return bus(connection);
}

} // namespace sdbusplus::bus

namespace sdbusplus
{
using bus_t = bus::bus;
} // namespace sdbusplus
