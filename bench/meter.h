// The service's processor time, told apart from that of the platform below it
// and of the bench around it, inside the service's process.
//
// The calls between service and platform are led through this file by the
// linker (--wrap), and so are a few steps of the service's life. Invariants:
// 1. A callback of the listener is the service's, whatever thread it runs on;
//    the rest of the stand-in's event thread is not.
// 2. What the stand-in does to answer a call about its objects is not the
//    service's. Log calls are: they only look at the level.
// 3. The NC thread waits at its entry until it is let go.
#pragma once

#include "bench/side.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace qdb::bench
{

// Processor time so far, in nanoseconds.
struct Reading
{
    int64_t service;
    int64_t eventThread;
    int64_t store;
};
Reading ReadMeter();

// From here on the calling thread is the bench's.
void LeaveThreadOut();

// The listener's next callbacks note their times here, as far as it goes.
void NoteEvents(std::span<int64_t> times);

// The times noted since NoteEvents.
size_t EventsNoted();

// Event records that the workers have finished so far, and when the last one
// was.
uint64_t RecordsDone();
int64_t LastRecordDone();

Memory ReadMemory();

// Returns freed memory to the kernel, as the NC thread does at every pass.
void TrimMemory();

// The steps of the start-up.
bool IsReady();
StartUp ReadStartUp(int64_t begin);
Cost PopulationCost();

// The NC thread.
void LetNCThreadGo();
int NCPasses();

} // namespace qdb::bench
