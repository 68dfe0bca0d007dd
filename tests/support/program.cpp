#include "tests/support/program.h"

#include "tests/support/text.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>

namespace qdb::test
{
namespace
{

std::string ClientFolder()
{
    return std::filesystem::path(Variable("QDB_TEST_CLIENT"))
        .parent_path()
        .string();
}

// Python has no sanitizers of its own: what the library wants of them comes
// first in the process, and what Python itself never frees is no leak of ours.
std::vector<std::string> PythonVariables()
{
    std::vector<std::string> variables = {
        "LD_LIBRARY_PATH=" + ClientFolder(),
        "PYTHONPATH=" + SourceOf("client/python"), "PYTHONDONTWRITEBYTECODE=1"};
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
    {
        if (line.find("/libasan.so") != std::string::npos)
        {
            variables.push_back("LD_PRELOAD=" + line.substr(line.find('/')));
            variables.push_back("ASAN_OPTIONS=detect_leaks=0:exitcode=66");
            break;
        }
    }
    return variables;
}

} // namespace

Program::Program(const std::vector<std::string> &command,
                 const std::vector<std::string> &variables, int output)
{
    Start(command, root_.Path() + "/output", variables, output);
}

Program::~Program()
{
    constexpr int kPatienceMs = 5000;
    Signal(SIGTERM);
    WaitExit(kPatienceMs);
}

std::string Program::Output() const
{
    return FileText(root_.Path() + "/output");
}

bool Program::WaitFor(const std::string &text) const
{
    const bool hasCome = WaitUntil(
        [&]
        {
            return Output().find(text) != std::string::npos;
        });
    EXPECT_TRUE(hasCome) << text << "\nisn't in\n" << Output();
    return hasCome;
}

bool Program::WaitForLine(const std::string &expression) const
{
    const bool hasCome = WaitUntil(
        [&]
        {
            return IsIn(Output(), "(^|\n)" + expression + "\n");
        });
    EXPECT_TRUE(hasCome) << expression << "\nisn't in\n" << Output();
    return hasCome;
}

int Program::End(int signalNumber)
{
    Signal(signalNumber);
    return WaitExit();
}

std::string Qdb(const std::string &arguments)
{
    return OutputOf(Variable("QDB_TEST_QDB") + " 2>&1 " + arguments);
}

Program StartQdb(std::vector<std::string> arguments, int output)
{
    arguments.insert(arguments.begin(), Variable("QDB_TEST_QDB"));
    return Program(arguments, {}, output);
}

std::string SourceOf(const std::string &path)
{
    return Variable("QDB_TEST_SOURCE") + '/' + path;
}

std::string ExampleProgram(const std::string &name)
{
    return ClientFolder() + "/examples/" + name;
}

std::string Python()
{
    return Variable("QDB_TEST_PYTHON");
}

std::vector<std::string> PythonCommand(const std::string &script)
{
    return {Python(), SourceOf(script)};
}

std::unique_ptr<Program> Follow(std::vector<std::string> command,
                                const ServiceProcess &service)
{
    command.push_back(service.Root().Database());
    return std::make_unique<Program>(command, command[0] == Python()
                                                  ? PythonVariables()
                                                  : std::vector<std::string>());
}

} // namespace qdb::test
