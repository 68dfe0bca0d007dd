// Texts of files, of programs and by regular expressions. Their header takes
// longer to compile than most tests, and so stays in one source.
#pragma once

#include <string>

namespace qdb::test
{

// A file's bytes; "" when it can't be read.
std::string FileText(const std::string &path);

// What is in that variable of the environment; a failure, and "", without it.
std::string Variable(const char *name);

// What a shell's command prints on its standard output, and "exit N" behind it
// unless N is 0.
std::string OutputOf(const std::string &command);

// The text with each match of the expression, as std::regex takes it, replaced.
std::string Replaced(const std::string &text, const std::string &expression,
                     const std::string &replacement);

// Whether the expression matches somewhere in the text.
bool IsIn(const std::string &text, const std::string &expression);

} // namespace qdb::test
