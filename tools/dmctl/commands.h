// The subcommands of dmctl.
//
// The parser fills one Invocation: the arguments of the subcommand that the
// user chose, and the function that carries it out once the stand-in is
// connected. Such a function prints its result on standard output and throws
// what the client throws.
//
// To add a subcommand that is one operation of the stand-in: a line in
// manager_commands.cpp. Any other: 1. give its arguments a place in Invocation;
// 2. declare it with AddSubcommand in the Add function of its kind.
#pragma once

#include "tools/dmctl/client.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace qdb
{

struct Invocation;

using Run = std::function<void(Client &, const Invocation &)>;

struct Invocation
{
    Run run;

    // Of the subcommands that are operations: their members.
    Json request = Json(json_object());

    // Of all others.
    std::string name;               // of an interface or a file
    std::string key;                // of an object or attribute, or a prefix
    std::vector<std::string> names; // of interfaces
    std::string database;           // path of the file
    uint32_t oid = 0;               // 0: not given
    std::vector<std::string> assignments; // COLUMN=VALUE
    uint32_t passes = 0;                  // 0: without end
    double interval = 1;                  // seconds between passes
    // How long to hold a name; default: without end.
    double seconds = std::numeric_limits<double>::infinity();
    bool json = false;
    bool silent = false; // send no bus signal
};

// A subcommand couldn't find out what it was asked to.
class CannotLook : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

// Declares a subcommand, whose own arguments the caller adds to the result.
CLI::App *AddSubcommand(CLI::App &app, Invocation *pInvocation,
                        const char *name, const char *description, Run run);

// create, set, show, event, delay and all others that are operations of the
// stand-in
void AddManagerCommands(CLI::App &app, Invocation *pInvocation);

// cfg list, show, add, set, remove, commit, raw, own
void AddConfigCommands(CLI::App &app, Invocation *pInvocation);

// audit
void AddAuditCommand(CLI::App &app, Invocation *pInvocation);

// host
void AddHostCommand(CLI::App &app, Invocation *pInvocation);

inline constexpr char kAssignmentHelp[] =
    "COLUMN=VALUE, with a JSON value or, failing that, a text";

// {"Speed": 3200, "BankLabel": "A"} from texts such as Speed=3200. Throws
// std::invalid_argument for a text that is no assignment.
Json ParseAssignments(const std::vector<std::string> &assignments);

// Prints "  COLUMN = VALUE" lines on standard output.
void PrintValues(json_t *values);

// Holds back SIGINT and SIGTERM, to be waited for. Returns the two.
sigset_t BlockStopSignals();

// Waits for that many seconds; true when one of the signals has come.
bool WaitForStop(const sigset_t &signals, double seconds);

// The array of the numbers.
template <typename T>
Json NumberArray(const std::vector<T> &numbers)
{
    Json array(json_array());
    for (const T number : numbers)
    {
        Append(array, Number(number));
    }
    return array;
}

} // namespace qdb
