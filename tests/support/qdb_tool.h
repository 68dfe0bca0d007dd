// The program qdb, run as a shell or a script would.
#pragma once

#include "tests/support/temp_root.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace qdb::test
{

// What `qdb ARGUMENTS` prints on both outputs, and "exit N" behind it unless N
// is 0. The arguments are the shell's, and may go on with a pipe.
std::string Qdb(const std::string &arguments);

// One that goes on.
class QdbProcess
{
  public:
    // `output`: a descriptor for standard output; -1: the file that Output()
    // reads, which standard error goes to in any case.
    explicit QdbProcess(const std::vector<std::string> &arguments,
                        int output = -1);
    ~QdbProcess(); // kills it if it still runs
    QdbProcess(const QdbProcess &) = delete;
    QdbProcess &operator=(const QdbProcess &) = delete;

    // What it has printed so far.
    std::string Output() const;
    bool WaitFor(const std::string &text) const;

    // A line that matches the expression, which std::regex takes.
    bool WaitForLine(const std::string &expression) const;

    // The exit status as ServiceProcess::WaitExit gives it, behind the signal
    // unless that is 0.
    int End(int signalNumber);

    pid_t Pid() const
    {
        return pid_;
    }

  private:
    TempRoot root_;
    pid_t pid_ = -1;
};

} // namespace qdb::test
