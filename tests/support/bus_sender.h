// Another service on the bus: sends signals and owns names.
#pragma once

#include <systemd/sd-bus.h>

namespace qdb::test
{

class BusSender
{
  public:
    BusSender();
    ~BusSender();
    BusSender(const BusSender &) = delete;
    BusSender &operator=(const BusSender &) = delete;

    // Sends a signal; the arguments as sd_bus_message_append takes them.
    void Emit(const char *path, const char *interface, const char *member,
              const char *types, ...) const;

    // Sends a method call to nobody in particular.
    void Call(const char *path, const char *interface,
              const char *member) const;

    // A signal that was not sent, as its receiver reads it. Valid until the
    // next call.
    sd_bus_message *Unsent(const char *types, ...);

    void Own(const char *name) const;
    void Disown(const char *name) const;

  private:
    sd_bus *bus_ = nullptr;
    sd_bus_message *unsent_ = nullptr;
};

} // namespace qdb::test
