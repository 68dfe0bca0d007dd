// Follows the service's log, which tells what the service has been given and
// how far it is with it.
#pragma once

#include <sys/types.h>

#include <fstream>
#include <string>

namespace qdb::chaos
{

struct LogWatcher
{
    explicit LogWatcher(const std::string &path) : path_(path)
    {
    }

    // Takes what has been written since, and gives the room of what is long
    // read back to the disk: a stranger's messages of megabytes are logged,
    // too. There may be no log yet.
    void Read();

    // The log's last part.
    std::string Tail() const;

    // All ten workers wait, and nothing is queued.
    bool IsIdle() const
    {
        return queued == taken && waits == taken + 10;
    }

    std::string fence; // text of a line that is waited for
    bool hasFence = false;
    size_t queued = 0;
    size_t taken = 0;
    size_t waits = 0;
    size_t passes = 0;  // that have ended
    size_t reloads = 0; // after detaches, that have ended
    bool passRuns = false;
    bool passRan = false; // until somebody resets it

  private:
    void Take(const std::string &line);
    void GiveBack();

    std::string path_;
    std::ifstream file_;
    std::string rest_; // an unfinished line
    off_t given_ = 0;  // back
    std::string passThread_;
};

} // namespace qdb::chaos
