#include "busintake/signal_thread.h"

#include "busintake/match_rules.h"
#include "core/cancel.h"
#include "core/log.h"
#include "db/turn.h"

#include <exception>
#include <memory>
#include <vector>

namespace qdb
{
namespace
{

constexpr char kThreadName[] = "handle_sdbus_signal_Request_thread";

// Bounds the time to the next look at the cancel flag.
constexpr uint64_t kWaitMicroseconds = 1000;

// The matches of a connection, undone newest first.
class Matches
{
  public:
    explicit Matches(sdbusplus::bus_t &bus)
    {
        for (const MatchRule &rule : MatchRules())
        {
            matches_.push_back(std::make_unique<sdbusplus::bus::match_t>(
                bus, rule.rule, rule.handler));
        }
    }
    ~Matches()
    {
        while (!matches_.empty())
        {
            matches_.pop_back();
        }
    }
    Matches(const Matches &) = delete;
    Matches &operator=(const Matches &) = delete;

  private:
    std::vector<std::unique_ptr<sdbusplus::bus::match_t>> matches_;
};

void ListenUntilCancelled()
{
    sdbusplus::bus_t bus = sdbusplus::bus::new_default_system();
    const Matches matches(bus);
    QDB_LOG(kLogWarning, "%s: %s: loop started.\n", kThreadName);
    ReadWatch watch;
    do
    {
        bus.process_discard();
        bus.wait(kWaitMicroseconds);
        watch.Tick();
    } while (!CheckCancelSignalThread());
}

} // namespace

void *handle_sdbus_signal_Request_thread(void * /*argument*/)
{
    QDB_LOG(kLogTrace, "%s: %s: enter.\n", kThreadName);
    try
    {
        ListenUntilCancelled();
    }
    catch (const std::exception &exception)
    {
        // Nothing starts it again: from here on the mirror follows the Data
        // Manager alone.
        QDB_LOG(kLogInvalid, "%s: EX: %s\n", exception.what());
    }
    return nullptr;
}

} // namespace qdb
