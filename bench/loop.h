// The loops: what SQLite, Jansson and sd-bus alone cost.
//
// One thread makes the calls that an operation can't do without, with nothing
// around them: no locks, no log, no queue, no telemetry, no Data Manager. The
// statements are the service's, in the service's order, each made on its own;
// all are prepared once. The objects are fetched before.
//
// How a row is read, compared and announced is the template's parameter.
// ParsedRows make the plain loop, the yardstick; SplicedRows make the best
// loop, which keeps the file's shared lock, too. A way to make the service
// faster doesn't belong into the plain loop.
#pragma once

#include "bench/scratch.h"
#include "bench/side.h"

namespace qdb::bench
{

// A side that runs a loop. It answers Prepare, Run and Stop.
template <typename Rows>
int RunLoopSide(const Channel &channel, const Scratch &scratch);

} // namespace qdb::bench
