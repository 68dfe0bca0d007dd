// What it costs to follow the service.
#pragma once

#include "bench/counter.h"
#include "bench/report.h"

#include <string>
#include <vector>

namespace qdb::bench
{

// Takes a service with so many objects, and changes those of one type so many
// times. Throws std::runtime_error when something fails, or when a follower
// wasn't told of each change once.
std::vector<Figures> MeasureFollowing(const std::string &program,
                                      Subscribers &subscribers,
                                      uint32_t objects, int passes);

} // namespace qdb::bench
