// The reader of a telemetry pipe, a process of its own: what tells from outside
// that a row has been written.
#pragma once

#include "bench/process.h"

#include <atomic>
#include <cstdint>
#include <set>
#include <string>

namespace qdb::bench
{

class PipeReader
{
  public:
    // Counts records about these tables, and all. Returns when the pipe is
    // open. Throws std::runtime_error when it can't be.
    PipeReader(const std::string &path, const std::set<std::string> &tables);

    // Waits for the first records, of all tables. Returns when the last one was
    // read. Throws std::runtime_error when they don't come.
    int64_t ExpectAny(uint64_t records);

    // The same for that many more of the tables given. Throws also when there
    // are more of them.
    int64_t Expect(uint64_t records);

  private:
    // Written by the child alone; the time first.
    struct Count
    {
        std::atomic<bool> open;
        std::atomic<int64_t> lastOfAll;
        std::atomic<int64_t> last;
        std::atomic<uint64_t> all;
        std::atomic<uint64_t> ofTables;
    };

    void Read(const std::string &path,
              const std::set<std::string> &tables) const;
    void TakeRecords(const std::set<std::string> &tables,
                     std::string *pText) const;

    Shared<Count> count_;
    uint64_t expected_ = 0; // of the tables given
    Process process_;
};

} // namespace qdb::bench
