// A dbus-daemon of the bench's own, which all sides and subscribers use.
#pragma once

#include "bench/process.h"
#include "bench/scratch.h"

namespace qdb::bench
{

// Runs as long as the object lives. It is the system bus of this process and
// of those that it makes (DBUS_SYSTEM_BUS_ADDRESS).
class Bus
{
  public:
    // Returns when it is served. Throws std::runtime_error when it can't be.
    Bus();

  private:
    Directory directory_{"/tmp"};
    Process daemon_;
};

} // namespace qdb::bench
