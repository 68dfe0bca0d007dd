// Platform calls that take their time.
#pragma once

#include "standin/calls.h"

namespace standin
{

// A moment in a call of a function for which a delay is armed.
struct Moment
{
    size_t index = 0;
    uint32_t oid = 0;        // 0: the call isn't about one object
    bool isLate = false;     // the answer has been taken
    const char *format = ""; // of a log line
    const char *line = "";   // as it is written, or its begin
};

// Sleeps as long as the delays for it say; for ever where one hangs, until it
// is removed. No lock is held meanwhile, and the thread can't be cancelled.
void SleepInCall(const Moment &moment);

} // namespace standin
