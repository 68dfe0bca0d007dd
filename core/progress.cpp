#include "core/progress.h"

namespace qdb
{

std::atomic<bool> gProgressCounts = false;
std::atomic<unsigned> gProgress = 0;

} // namespace qdb
