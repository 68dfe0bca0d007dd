#include "tools/qdb/state.h"

namespace qdb::tool
{
namespace
{

// As the service writes them.
constexpr uint64_t kStarting = 0;
constexpr uint64_t kFilling = 1;
constexpr uint64_t kRunning = 2;

const char *ReasonForSilence(const Statistics &statistics)
{
    if (statistics.Value("bus_connected") == 0)
    {
        return "no bus";
    }
    return statistics.Value("ready_refused") != 0 ? "readiness is refused"
                                                  : "not ready yet";
}

} // namespace

State StateOf(const Statistics &statistics)
{
    if (!statistics.isRunning)
    {
        return State::NotRunning;
    }
    switch (statistics.Value("phase"))
    {
    case kStarting:
        return State::Starting;
    case kFilling:
        return State::Filling;
    case kRunning:
        break;
    default:
        return State::Stopping;
    }
    if (statistics.Value("detached") != 0)
    {
        return State::Detached;
    }
    return statistics.Value("bus_connected") != 0 &&
                   statistics.Value("signals_enabled") != 0
               ? State::Live
               : State::LiveWithoutSignals;
}

const char *NameOf(State state)
{
    switch (state)
    {
    case State::NotRunning:
        return "not_running";
    case State::Starting:
        return "starting";
    case State::Filling:
        return "filling";
    case State::Live:
        return "live";
    case State::LiveWithoutSignals:
        return "live_without_signals";
    case State::Detached:
        return "detached";
    case State::Stopping:
        return "stopping";
    }
    return "";
}

std::string StateInWords(const Statistics &statistics)
{
    switch (StateOf(statistics))
    {
    case State::NotRunning:
        return "isn't running; this is what it left";
    case State::Starting:
        return "starts";
    case State::Filling:
        return "fills its tables: type " +
               std::to_string(statistics.Value("types_filled")) + " of " +
               std::to_string(statistics.Value("types"));
    case State::Live:
        return "is live";
    case State::LiveWithoutSignals:
        return std::string("is live, but tells of no change: ") +
               ReasonForSilence(statistics);
    case State::Detached:
        return "waits for the Data Manager, which has gone";
    case State::Stopping:
        return "stops";
    }
    return "";
}

} // namespace qdb::tool
