#include "tests/support/child.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

namespace qdb::test
{
namespace
{

// Each once: of several of one name a shell takes the last, and others the
// first.
std::vector<std::string> Environment(const std::vector<std::string> &variables)
{
    std::vector<std::string> environment = variables;
    for (char **entry = environ; *entry != nullptr; ++entry)
    {
        const std::string_view variable = *entry;
        const auto isSame = [name = variable.substr(0, variable.find('=') + 1)](
                                const std::string &other)
        {
            return other.starts_with(name);
        };
        if (std::ranges::none_of(variables, isSame))
        {
            environment.emplace_back(variable);
        }
    }
    return environment;
}

std::vector<char *> Pointers(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    std::ranges::transform(texts, std::back_inserter(pointers),
                           [](std::string &text)
                           {
                               return text.data();
                           });
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

Child::~Child()
{
    Signal(SIGKILL);
    WaitExit();
}

void Child::Start(std::vector<std::string> command, const std::string &file,
                  const std::vector<std::string> &variables, int output)
{
    command.insert(command.begin(), {"setpriv", "--pdeathsig", "KILL"});
    std::vector<std::string> environment = Environment(variables);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, file.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC | O_APPEND,
                                     0600);
    posix_spawn_file_actions_adddup2(
        &actions, output < 0 ? STDERR_FILENO : output, STDOUT_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    EXPECT_EQ(posix_spawnp(&pid_, "setpriv", &actions, &attributes,
                           Pointers(command).data(),
                           Pointers(environment).data()),
              0);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
}

void Child::Signal(int signalNumber) const
{
    // Never -1, which would mean every process there is.
    if (pid_ > 0)
    {
        kill(pid_, signalNumber);
    }
}

int Child::WaitExit(int deadlineMs)
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

} // namespace qdb::test
