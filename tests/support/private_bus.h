// A dbus-daemon of the test's own.
#pragma once

#include <sys/types.h>

#include <string>

namespace qdb::test
{

// Runs as long as the object lives. The process's system bus is this one from
// then on (DBUS_SYSTEM_BUS_ADDRESS).
class PrivateBus
{
  public:
    PrivateBus();
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

  private:
    std::string directory_;
    std::string address_;
    pid_t pid_ = -1;
};

} // namespace qdb::test
