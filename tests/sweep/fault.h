// One fault of the service's surroundings, at the n-th call of its kind.
#pragma once

#include <string>

namespace qdb::sweep
{

enum class Call
{
    Step,       // sqlite3_step, of any statement
    Prepare,    // sqlite3_prepare_v2
    Allocation, // operator new, malloc, calloc
    Platform,   // a function of the platform fails
    Hang,       // likewise, and hangs until Disarm() or LetGo()
    Write,      // write to the telemetry pipe
    Send,       // sd_bus_send
};

struct Kind
{
    Call call;
    std::string name;
    int status = 0;            // an errno of Write and Send; 0: half is written
    std::string function = {}; // of Platform and Hang
    bool mayEnd = false;       // the service, or what hears the bus, may end
    bool leavesStuck = false;  // what it holds up stays so until a stop
};

struct Fault
{
    Kind kind;
    int at = 0; // so many calls work before
    bool forGood = false;
};

// From here on calls are counted, and the fault happens. One at a time.
void Arm(const Fault &fault);

// What hangs goes on, and may hang again.
void LetGo();

// The fault is over, for all threads, and nothing is counted. Returns how many
// calls there were.
int Disarm();

// The calling thread's own calls neither count nor fail.
void SpareThisThread();

} // namespace qdb::sweep
