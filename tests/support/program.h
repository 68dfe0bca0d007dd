// The programs of readers, run as a shell or a script would: qdb, and what
// follows the mirror with the client library.
#pragma once

#include "tests/support/child.h"
#include "tests/support/service_process.h"
#include "tests/support/temp_root.h"

#include <memory>
#include <string>
#include <vector>

namespace qdb::test
{

// One that goes on, and whose output is read.
class Program : public Child
{
  public:
    // `output`: a descriptor for standard output; -1: the file that Output()
    // reads, which standard error goes to in any case.
    explicit Program(const std::vector<std::string> &command,
                     const std::vector<std::string> &variables = {},
                     int output = -1);
    ~Program(); // SIGTERM, or SIGKILL in the end

    // What it has printed so far.
    std::string Output() const;
    bool WaitFor(const std::string &text) const;

    // A line that matches the expression, which std::regex takes.
    bool WaitForLine(const std::string &expression) const;

    // The exit status as WaitExit gives it, behind the signal unless that is 0.
    int End(int signalNumber);

  private:
    TempRoot root_;
};

// What `qdb ARGUMENTS` prints on both outputs, and "exit N" behind it unless N
// is 0. The arguments are the shell's, and may go on with a pipe.
std::string Qdb(const std::string &arguments);

Program StartQdb(std::vector<std::string> arguments, int output = -1);

// Where the examples' sources and the Python module lie, and where what is
// compiled of them does.
std::string SourceOf(const std::string &path);
std::string ExampleProgram(const std::string &name);

// "" where there is no Python that could load the library.
std::string Python();

// What runs a script of the tree by it.
std::vector<std::string> PythonCommand(const std::string &script);

// Starts it with the path of the service's database as its last argument.
// Python finds the module of the tree, and the library.
std::unique_ptr<Program> Follow(std::vector<std::string> command,
                                const ServiceProcess &service);

} // namespace qdb::test
