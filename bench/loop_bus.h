// The connection that a loop sends its signals on.
#pragma once

#include <systemd/sd-bus.h>

namespace qdb::bench
{

// Kinds of signals, as SignalMember counts them.
inline constexpr int kAdded = 1;
inline constexpr int kChanged = 2;
inline constexpr int kRemoved = 3;

class LoopBus
{
  public:
    // Throws std::runtime_error without a system bus.
    LoopBus();
    ~LoopBus();
    LoopBus(const LoopBus &) = delete;
    LoopBus &operator=(const LoopBus &) = delete;

    // Throws std::runtime_error when the bus refuses.
    void Send(int kind, const char *text) const;

  private:
    sd_bus *bus_ = nullptr;
};

} // namespace qdb::bench
