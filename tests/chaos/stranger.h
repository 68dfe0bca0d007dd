// Somebody on the bus who has no business with the service: malformed, huge and
// forged messages of every shape.
//
// What is forged names nothing that exists, since a service hears any sender:
// a destroy of what is there would be carried out.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace qdb::chaos
{

class Stranger
{
  public:
    Stranger(); // on the system bus; throws when that can't be reached

    // One message; `choice` chooses its shape and its contents.
    void Bother(uint32_t choice);

    // One message that makes more records than the queue may hold of the bus.
    void Flood();

  private:
    struct Close
    {
        void operator()(sd_bus *bus) const
        {
            sd_bus_flush_close_unref(bus);
        }
    };

    void Send(sd_bus_message *message);
    void AwaitBus();

    std::unique_ptr<sd_bus, Close> bus_;
};

} // namespace qdb::chaos
