// The system around a service: its Data Manager and configuration manager, a
// second process at the database, a telemetry reader that comes and goes.
#pragma once

#include "tests/chaos/log_watcher.h"
#include "tests/chaos/stranger.h"
#include "tests/support/change_listener.h"
#include "tests/support/service_process.h"
#include "tools/dmctl/client.h"
#include "tools/dmctl/config_bus.h"
#include "tools/qdb/statistics.h"

#include <sqlite3.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace qdb::chaos
{

class Driver
{
  public:
    // Starts the service and waits until it is ready and has made a pass.
    explicit Driver(const std::string &scenario);

    // A command of the control socket; throws when it is refused.
    Json Do(const std::string &command);

    // Locks the database until Release(), which waits out the given time and
    // returns how long it was locked; 0: it wasn't.
    void Hold(int milliseconds);
    int Release();

    void OpenPipe();
    void ClosePipe();

    void NoteDetach()
    {
        ++detaches_;
    }

    // Waits until the service has done all that it was told. False when it
    // doesn't within the deadline. *pPassRan: a pass was under way meanwhile.
    bool Settle(bool *pPassRan);

    // A pass was under way since the last Settle(), as far as the log tells.
    bool HasPassRun();

    // What the service has counted. Throws when there is nothing.
    tool::Statistics Statistics() const;

    // How many objects and events it has not carried out, by its own count.
    uint64_t GivenUp() const;

    // Waits for so many whole passes.
    bool WaitPasses(size_t count);

    const LogWatcher &Log() const
    {
        return log_;
    }
    ConfigBus &Bus()
    {
        return bus_;
    }
    Stranger &Other()
    {
        return stranger_;
    }
    test::ChangeListener &Signals()
    {
        return signals_;
    }
    test::ServiceProcess &Service()
    {
        return service_;
    }
    const test::ServiceProcess &Service() const
    {
        return service_;
    }
    sqlite3 *Database() const
    {
        return database_.get();
    }

  private:
    using Clock = std::chrono::steady_clock;
    struct Close
    {
        void operator()(sqlite3 *database) const
        {
            sqlite3_close(database);
        }
    };

    void Fence();
    bool IsSettled();

    test::ServiceProcess service_;
    test::ChangeListener signals_;
    std::unique_ptr<Client> client_;
    LogWatcher log_;
    ConfigBus bus_;
    Stranger stranger_;
    std::unique_ptr<sqlite3, Close> database_;
    std::optional<test::PipeReader> pipe_;
    std::optional<Clock::time_point> heldSince_;
    int holdMs_ = 0;
    size_t detaches_ = 0;
    int fences_ = 0;
    Clock::time_point fencedAt_;
};

} // namespace qdb::chaos
