// Another service on the bus: sends signals and owns names.
#pragma once

#include <systemd/sd-bus.h>

#include <random>

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

    // Sends a signal whose body is random in its types and contents, half of
    // the time one that resembles what the member should carry.
    void EmitRandom(const char *member, const char *interface,
                    std::mt19937 &engine) const;

    // Sends a method call to nobody in particular.
    void Call(const char *path, const char *interface,
              const char *member) const;

    // A signal that was not sent, as its receiver reads it, with some values of
    // the types given. Valid until the next call.
    sd_bus_message *Empty(const char *types);

    // The same with the values as sd_bus_message_append takes them.
    sd_bus_message *Unsent(const char *types, ...);

    void Own(const char *name) const;
    void Disown(const char *name) const;

  private:
    sd_bus_message *Seal(sd_bus_message *message);

    sd_bus *bus_ = nullptr;
    sd_bus_message *unsent_ = nullptr;
};

} // namespace qdb::test
