#include "tests/support/text.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

namespace qdb::test
{

std::string FileText(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

std::string Variable(const char *name)
{
    const char *value = std::getenv(name);
    EXPECT_NE(value, nullptr) << name;
    return value == nullptr ? "" : value;
}

std::string OutputOf(const std::string &command)
{
    FILE *output = popen(command.c_str(), "r");
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

std::string Replaced(const std::string &text, const std::string &expression,
                     const std::string &replacement)
{
    return std::regex_replace(text, std::regex(expression), replacement);
}

bool IsIn(const std::string &text, const std::string &expression)
{
    return std::regex_search(text, std::regex(expression));
}

} // namespace qdb::test
