// A program that a test starts, and that never outlives it.
#pragma once

#include "tests/support/wait.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace qdb::test
{

class Child
{
  public:
    Child() = default;
    ~Child(); // kills it if it still runs
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    // Runs the command, whose program is looked for in PATH, with standard
    // error in the file, and standard output in `output` or, when that is -1,
    // in the file, too. The variables, "NAME=value" each, take the place of
    // those of this process. It ignores neither SIGINT nor SIGPIPE as it
    // begins, and ends with this process, however that ends.
    void Start(std::vector<std::string> command, const std::string &file,
               const std::vector<std::string> &variables = {}, int output = -1);

    pid_t Pid() const
    {
        return pid_;
    }

    // Nothing happens when it has ended.
    void Signal(int signalNumber) const;

    // The exit status; 128 and the signal when one ended it, -1 when it still
    // runs at the deadline.
    int WaitExit(int deadlineMs = kDeadlineMs);

  private:
    pid_t pid_ = -1;
};

} // namespace qdb::test
