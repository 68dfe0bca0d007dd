#include "tests/support/example.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

namespace qdb::test
{
namespace
{

std::string Variable(const char *name)
{
    const char *value = std::getenv(name);
    EXPECT_NE(value, nullptr) << name;
    return value == nullptr ? "" : value;
}

// Python has no sanitizers of its own: what the library wants of them comes
// first in the process, and what Python itself never frees is no leak of ours.
std::vector<std::string> SanitizerVariables()
{
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
    {
        if (line.find("/libasan.so") != std::string::npos)
        {
            return {"LD_PRELOAD=" + line.substr(line.find('/')),
                    "ASAN_OPTIONS=detect_leaks=0:exitcode=66"};
        }
    }
    return {};
}

std::vector<std::string> Environment(bool isPython)
{
    std::vector<std::string> environment;
    if (isPython)
    {
        const std::filesystem::path library = Variable("QDB_TEST_CLIENT");
        environment = SanitizerVariables();
        environment.push_back("LD_LIBRARY_PATH=" +
                              library.parent_path().string());
        environment.push_back("PYTHONPATH=" + SourceOf("client/python"));
        environment.push_back("PYTHONDONTWRITEBYTECODE=1");
    }
    // Each once: a shell that starts Python takes the last.
    const std::vector<std::string> given = environment;
    for (char **entry = environ; *entry != nullptr; ++entry)
    {
        const std::string_view variable = *entry;
        const std::string_view name =
            variable.substr(0, variable.find('=') + 1);
        if (std::ranges::none_of(given,
                                 [&](const std::string &other)
                                 {
                                     return other.starts_with(name);
                                 }))
        {
            environment.emplace_back(variable);
        }
    }
    return environment;
}

std::vector<char *> Pointers(const std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    for (const std::string &text : texts)
    {
        pointers.push_back(const_cast<char *>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

std::string SourceOf(const std::string &path)
{
    return Variable("QDB_TEST_SOURCE") + '/' + path;
}

std::string ExampleProgram(const std::string &name)
{
    const std::filesystem::path library = Variable("QDB_TEST_CLIENT");
    return (library.parent_path() / "examples" / name).string();
}

std::string Python()
{
    return Variable("QDB_TEST_PYTHON");
}

std::vector<std::string> PythonCommand(const std::string &script)
{
    return {Python(), SourceOf(script)};
}

Example::Example(const std::vector<std::string> &command, const TempRoot &root,
                 const std::string &name)
    : output_(root.Path() + "/" + name + ".out")
{
    std::vector<std::string> whole = {"setpriv", "--pdeathsig", "KILL"};
    whole.insert(whole.end(), command.begin(), command.end());
    const std::vector<std::string> environment =
        Environment(command[0] == Python());
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC | O_APPEND,
                                     0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    // Which a shell has its background jobs ignore.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    EXPECT_EQ(posix_spawnp(&pid_, "setpriv", &actions, &attributes,
                           Pointers(whole).data(),
                           Pointers(environment).data()),
              0);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
}

Example::~Example()
{
    constexpr int kPatienceMs = 5000;
    Signal(SIGTERM);
    if (pid_ > 0 && WaitExit(kPatienceMs) == -1)
    {
        Signal(SIGKILL);
        WaitExit();
    }
}

std::string Example::Output() const
{
    std::ostringstream text;
    text << std::ifstream(output_).rdbuf();
    return text.str();
}

void Example::Signal(int signalNumber) const
{
    // Never -1, which would mean every process there is.
    if (pid_ > 0)
    {
        kill(pid_, signalNumber);
    }
}

int Example::WaitExit(int deadlineMs)
{
    int status = 0;
    if (pid_ <= 0 || !WaitUntil(
                         [&]
                         {
                             return waitpid(pid_, &status, WNOHANG) == pid_;
                         },
                         deadlineMs))
    {
        return -1;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::unique_ptr<Example> Follow(std::vector<std::string> command,
                                const ServiceProcess &service,
                                const std::string &name)
{
    command.push_back(service.Root().Database());
    return std::make_unique<Example>(command, service.Root(), name);
}

} // namespace qdb::test
