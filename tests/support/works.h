// Kinds of work, each from the state that it begins in to what it leaves, for
// sweeps: every allocation of theirs fails once, and every call of the platform
// hangs once.
#pragma once

#include "tests/support/reload_fixture.h"

#include <functional>

namespace qdb::test
{

using Action = std::function<void()>;
inline const Action kNothing = [] {};

struct Work
{
    std::string name;
    Action begin; // in an empty mirror
    Action run;
    Lines tables = {};      // whose rows it writes
    Action feed = kNothing; // its input, before each run
    // What is lost stays lost until the object changes: a reload doesn't see a
    // change twice, and a create doesn't write a row twice.
    bool isOnce = false;
    // Rows are also written, and announced, without a value: a joined list, or
    // a file's content, that finds no memory.
    bool leavesOut = false;
    Action settle = kNothing; // waits for what the run has left to others
    Bytes record = {};        // that is fed to a worker, if it is one's work
};

// A worker's life with one record.
Work OfWorker(const std::string &name, const Action &begin, const Bytes &record,
              const Lines &tables);

// An object's create, refresh and destroy, each by its event. It has a parent.
std::vector<Work> OfObject(const std::string &name, const Bytes &before,
                           const Bytes &after, const Lines &tables);

// All that workers do for objects and attributes. Whatever goes wrong in one of
// these, in the end the database holds what the two managers do.
std::vector<Work> WorksOfWorkers();

// The reload of the configuration.
Work OfConfiguration();

// The object that these works are about, below its parent.
inline constexpr uint32_t kWorkOid = 0x51;

// An object and its row.
void PutWithRow(const Bytes &object);

} // namespace qdb::test
