// The system around a service: its Data Manager and configuration manager, a
// second process at the database, a telemetry reader that comes and goes.
#pragma once

#include "tests/support/change_listener.h"
#include "tests/support/service_process.h"
#include "tools/dmctl/client.h"
#include "tools/dmctl/config_bus.h"

#include <sqlite3.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

namespace qdb::chaos
{

// Follows the service's log, which tells what it has been given and how far it
// is with it.
class LogWatcher
{
  public:
    explicit LogWatcher(const std::string &path) : path_(path)
    {
    }

    // Reads what has been written since; a long file is emptied.
    void Read();

    // All ten workers wait, and nothing is queued.
    bool IsIdle() const
    {
        return queued_ == taken_ && waits_ == taken_ + 10;
    }
    bool PassRuns() const
    {
        return passRuns_;
    }
    size_t Passes() const // that have ended
    {
        return passes_;
    }
    size_t Reloads() const // after detaches, that have ended
    {
        return reloads_;
    }
    bool HasFence() const
    {
        return hasFence_;
    }
    // A pass was under way since the last call.
    bool TakePassRan();
    void AwaitFence(const std::string &path);

  private:
    void Take(const std::string &line);

    std::string path_;
    std::streamoff at_ = 0;
    std::string rest_; // an unfinished line
    std::string passThread_;
    std::string fence_;
    size_t queued_ = 0;
    size_t taken_ = 0;
    size_t waits_ = 0;
    size_t passes_ = 0;
    size_t reloads_ = 0;
    bool passRuns_ = false;
    bool passRan_ = false;
    bool hasFence_ = false;
};

class Driver
{
  public:
    // Starts the service and waits until it is ready and has made a pass.
    explicit Driver(const std::string &scenario);

    // A command of the control socket; throws when it is refused.
    Json Do(const std::string &command);

    ConfigBus &Bus()
    {
        return bus_;
    }

    // An attribute as the configuration manager's signals tell of it.
    static Json Attribute(const std::string &interface, const std::string &key,
                          uint32_t oid);

    // Locks the database until Release(), which waits out the given time.
    void Hold(int milliseconds);
    // How long the database was locked; 0: it wasn't.
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

    // A pass is under way, as far as the log tells.
    bool PassRuns();

    // Waits for so many whole passes.
    bool WaitPasses(size_t count);

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

    test::ServiceProcess service_;
    std::unique_ptr<Client> client_;
    LogWatcher log_;
    ConfigBus bus_;
    std::unique_ptr<sqlite3, Close> database_;
    std::optional<test::PipeReader> pipe_;
    std::optional<Clock::time_point> heldSince_;
    int holdMs_ = 0;
    size_t detaches_ = 0;
    int fences_ = 0;
};

} // namespace qdb::chaos
