// A program that follows the mirror, as its user runs it.
#pragma once

#include "tests/support/service_process.h"

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace qdb::test
{

// Where the examples' sources and the Python module lie, and where what is
// compiled of them does.
std::string SourceOf(const std::string &path);
std::string ExampleProgram(const std::string &name);

// "" where there is no Python that could load the library.
std::string Python();

// What runs a script of the tree by it.
std::vector<std::string> PythonCommand(const std::string &script);

class Example
{
  public:
    // Starts it with what it prints in a file of the root, by a name of its
    // own. Python finds the module of the tree, and the library.
    Example(const std::vector<std::string> &command, const TempRoot &root,
            const std::string &name);
    ~Example(); // SIGTERM, or SIGKILL in the end
    Example(const Example &) = delete;
    Example &operator=(const Example &) = delete;

    // All that it has printed, errors included.
    std::string Output() const;

    void Signal(int signalNumber) const;

    // The exit status; 128 and the signal when one ended it, -1 when it still
    // runs at the deadline.
    int WaitExit(int deadlineMs = kDeadlineMs);

  private:
    std::string output_;
    pid_t pid_ = -1;
};

// Starts it with the path of the service's database as its last argument.
std::unique_ptr<Example> Follow(std::vector<std::string> command,
                                const ServiceProcess &service,
                                const std::string &name);

} // namespace qdb::test
