// A system bus as a machine has it, and users on it.
#pragma once

#include "tests/support/private_bus.h"
#include "tests/support/temp_root.h"

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace qdb::test
{

// A dbus-daemon with the distribution's policy and that of the service, for as
// long as the object lives. The process's own system bus stays what it is.
class SystemBus
{
  public:
    // `strict`: with the policy for the service's group, too.
    explicit SystemBus(bool strict = false);

    // False where the distribution's policy isn't installed.
    static bool IsThere();

    std::string Address() const
    {
        return "unix:path=" + root_.Path() + "/socket";
    }

  private:
    TempRoot root_;
    std::optional<BusDaemon> daemon_;
};

// The service's group on the SystemBus: the daemon knows only groups that are
// there, and this machine need not have that of the field.
gid_t ServiceGroup();

// One connection of a user. Made by root, and by a process of one thread: its
// effective user and groups change for a moment.
class BusUser
{
  public:
    // `groups`: the supplementary groups of the connection.
    BusUser(const SystemBus &bus, uid_t user,
            const std::vector<gid_t> &groups = {});
    ~BusUser();
    BusUser(const BusUser &) = delete;
    BusUser &operator=(const BusUser &) = delete;

    // The connection's unique name, its own while it lives.
    const char *Name() const;

    // Whom the bus takes the connection for.
    uid_t User() const;

    // How many connections have greeted the bus, this one included.
    ptrdiff_t Connections() const;

    // Takes a name; on the SystemBus root alone may, and only the configuration
    // manager's.
    void Own(const char *name) const;

    // Subscribes to all signals there are.
    void Listen() const;

    // Sends a signal to all, or to one where `destination` isn't NULL. Its
    // first text says which it is.
    void Emit(const char *path, const char *interface, const char *member,
              const char *destination, const std::string &text) const;

    // Waits for a signal whose first text is `text` or `end`; whether `text`
    // came first.
    bool HearsBefore(const std::string &text, const std::string &end);

    // Waits for a signal of the mirror; returns its sender.
    std::string WaitForChange();

    // Calls a method without arguments; "", or the error's name.
    std::string Call(const std::string &name, const char *path,
                     const char *interface, const char *member) const;

  private:
    bool Connect(const std::string &address, uid_t user,
                 const std::vector<gid_t> &groups);
    std::string Next();

    sd_bus *bus_ = nullptr;
    std::string sender_; // of the last signal
};

} // namespace qdb::test
