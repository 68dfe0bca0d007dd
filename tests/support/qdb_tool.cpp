#include "tests/support/qdb_tool.h"

#include "tests/support/wait.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

extern char **environ;

namespace qdb::test
{
namespace
{

std::string Program()
{
    const char *program = std::getenv("QDB_TEST_QDB");
    EXPECT_NE(program, nullptr) << "QDB_TEST_QDB names the program";
    return program == nullptr ? "false" : program;
}

} // namespace

std::string Qdb(const std::string &arguments)
{
    FILE *output = popen((Program() + " 2>&1 " + arguments).c_str(), "r");
    std::string text;
    for (int c = fgetc(output); c != EOF; c = fgetc(output))
    {
        text += static_cast<char>(c);
    }
    const int status = pclose(output);
    return status == 0
               ? text
               : text + "exit " + std::to_string(WEXITSTATUS(status)) + '\n';
}

QdbProcess::QdbProcess(const std::vector<std::string> &arguments, int output)
{
    const std::string program = Program();
    std::vector<char *> words = {const_cast<char *>(program.c_str())};
    for (const std::string &argument : arguments)
    {
        words.push_back(const_cast<char *>(argument.c_str()));
    }
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(
        &actions, STDERR_FILENO, (root_.Path() + "/output").c_str(),
        O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(
        &actions, output < 0 ? STDERR_FILENO : output, STDOUT_FILENO);
    EXPECT_EQ(posix_spawn(&pid_, program.c_str(), &actions, nullptr,
                          words.data(), environ),
              0);
    posix_spawn_file_actions_destroy(&actions);
}

QdbProcess::~QdbProcess()
{
    if (pid_ > 0)
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

std::string QdbProcess::Output() const
{
    std::ostringstream text;
    text << std::ifstream(root_.Path() + "/output").rdbuf();
    return text.str();
}

bool QdbProcess::WaitFor(const std::string &text) const
{
    const bool hasCome = WaitUntil(
        [&]
        {
            return Output().find(text) != std::string::npos;
        });
    EXPECT_TRUE(hasCome) << text << "\nisn't in\n" << Output();
    return hasCome;
}

bool QdbProcess::WaitForLine(const std::string &expression) const
{
    const std::regex wanted("(^|\n)" + expression + "\n");
    const bool hasCome = WaitUntil(
        [&]
        {
            return std::regex_search(Output(), wanted);
        });
    EXPECT_TRUE(hasCome) << expression << "\nisn't in\n" << Output();
    return hasCome;
}

int QdbProcess::End(int signalNumber)
{
    int status = 0;
    if (pid_ <= 0 || (signalNumber != 0 && kill(pid_, signalNumber) != 0) ||
        !WaitUntil(
            [&]
            {
                return waitpid(pid_, &status, WNOHANG) == pid_;
            }))
    {
        return -1;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace qdb::test
