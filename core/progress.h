// Whether anything in the service still moves; asked at a stop alone.
//
// Whoever comes back from a call that others answer, or has done a piece of
// work, notes it. What makes no note for two seconds once a stop has been
// requested counts as hanging (service/watch.h).
#pragma once

#include <atomic>

namespace qdb
{

// True while somebody counts; until then a note costs one read.
extern std::atomic<bool> gProgressCounts;
extern std::atomic<unsigned> gProgress;

// Belongs behind each platform call, each step of a statement and each record.
// Takes no lock; may be called in any state.
inline void NoteProgress()
{
    if (gProgressCounts.load(std::memory_order_relaxed))
    {
        gProgress.fetch_add(1, std::memory_order_relaxed);
    }
}

} // namespace qdb
