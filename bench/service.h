// The service as a whole, in a process of its own: everything that its `main`
// starts, with the stand-in as Data Manager below it.
#pragma once

#include "bench/scratch.h"
#include "bench/side.h"
#include "bench/subscriber.h"

namespace qdb::bench
{

// Changes per second of Kind::Changes.
inline constexpr int kChangesPerSecond = 1000;

// When the listener was called, event by event, in nanoseconds of the steady
// clock.
struct EventTimes
{
    int64_t times[Subscribers::kMaxArrivals];
};

// A side that runs the service and answers all kinds of requests. Its first two
// prepare and run a Populate, from the entry of main to readiness. The NC
// thread is held back until a Reconcile; from then on there are more records on
// the pipe than the steps explain.
int RunServiceSide(const Channel &channel, const Scratch &scratch,
                   EventTimes *pTimes);

} // namespace qdb::bench
