#include "core/waiting.h"

namespace qdb
{

constinit thread_local bool tHasTurn = false;
constinit thread_local int64_t tTurnNanoseconds = 0;
constinit thread_local int64_t tWaitedNanoseconds = 0;

std::atomic<bool> gProgressCounts = false;
std::atomic<unsigned> gProgress = 0;

} // namespace qdb
