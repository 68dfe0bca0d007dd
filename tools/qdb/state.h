// The state of a service, told from its figures.
#pragma once

#include "tools/qdb/statistics.h"

#include <string>

namespace qdb::tool
{

enum class State
{
    NotRunning,
    Starting,
    Filling,
    Live,
    LiveWithoutSignals,
    Detached,
    Stopping,
};

State StateOf(const Statistics &statistics);

// "live", "live_without_signals" and so on.
const char *NameOf(State state);

// Such as "is live, but tells of no change: no bus".
std::string StateInWords(const Statistics &statistics);

} // namespace qdb::tool
