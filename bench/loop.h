// The plain loop: what SQLite, Jansson and sd-bus alone cost.
//
// The calling thread makes the calls that an operation can't do without, with
// nothing around them: no locks, no log, no queue, no telemetry, no Data
// Manager. The statements are the service's, in the service's order, each made
// on its own. The objects are fetched before. It is the yardstick: a way to
// make the service faster doesn't belong here.
#pragma once

#include "bench/loop_row.h"
#include "bench/scratch.h"
#include "bench/workload.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <vector>

namespace qdb::bench
{

// Of one step, in nanoseconds: points in time, and the thread's processor time.
struct LoopCost
{
    int64_t begin;
    int64_t end;
    int64_t processor;
};

// One at a time in a process, because the connection and the stand-in are the
// process's own. All throw std::runtime_error when a call fails.
class Loop
{
  public:
    Loop();
    ~Loop();
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    // Brings the stand-in to where the step's events find it, and fetches the
    // objects.
    void Prepare(const Step &step, const Json &operations);

    LoopCost Run(const Step &step);

    const Scratch scratch;

  private:
    // An object on its way through the loop. After its deletion only its row
    // is known.
    struct Subject
    {
        uint32_t oid;
        std::vector<uint8_t> bytes; // empty: gone
        LoopRow *row;
    };

    void RunOne(Action action, const Subject &subject);
    void Create(const Subject &subject, bool announced);
    void Refresh(const Subject &subject);
    void Delete(const Subject &subject);
    void LookUpType(uint32_t oid);
    void TouchTag(const char *table);
    void Send(int kind, const JsonText &text);

    sd_bus *bus_ = nullptr;

    // Empty while there is no database.
    std::vector<LazyStatement> statements_;
    std::map<const ObjTypeRow *, LoopRow> rows_;
    std::map<uint32_t, LoopRow *> byOid_; // of live objects
    std::vector<Subject> subjects_;       // of the next Run
};

} // namespace qdb::bench
