// A dbus-daemon of the test's own.
#pragma once

#include "tests/support/child.h"

#include <optional>
#include <string>

namespace qdb::test
{

// With the configuration of a file, which has it listen on the socket, beside
// which its log lies. Listens when it has been made.
class BusDaemon : public Child
{
  public:
    BusDaemon(const std::string &configuration, const std::string &socket);
};

// With a configuration that allows everything. The process's system bus is this
// one from then on (DBUS_SYSTEM_BUS_ADDRESS).
class PrivateBus
{
  public:
    // `held`: bytes that it keeps for a subscriber before it drops signals.
    explicit PrivateBus(size_t held = size_t{256} << 20);
    ~PrivateBus();
    PrivateBus(const PrivateBus &) = delete;
    PrivateBus &operator=(const PrivateBus &) = delete;

    const std::string &Address() const
    {
        return address_;
    }

    // Stops the daemon's process for a while; nothing is read or forwarded.
    void Freeze() const;
    void Thaw() const;

    // Ends the daemon now.
    void Kill();

    // The same again, at the same address, after Kill().
    void Restart();

  private:
    std::string directory_;
    std::string address_;
    std::optional<BusDaemon> daemon_;
};

} // namespace qdb::test
