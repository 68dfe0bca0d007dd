// Lives of the service, each in a process of its own.
#pragma once

#include "tests/sweep/fault.h"

#include <string>

namespace qdb::sweep
{

struct Outcome
{
    int status = -1; // exit status; 128 and a signal's number; -1: hung
    bool hasFinished = false; // it came to the end of the scenario
    int calls = 0;            // of the kind
    std::string wrong;        // when all had been announced again; "": nothing
};

// Runs the service through the scenario in a new database. With the fault over
// all is announced again; then it is stopped, unless it has ended by itself.
Outcome Live(const Fault &fault);

} // namespace qdb::sweep
