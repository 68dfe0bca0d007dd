// The subcommands of dmctl.
//
// The parser fills one Invocation: the arguments of the subcommand that the
// user chose, and the function that carries it out once the stand-in is
// connected. Such a function prints its result on standard output and throws
// what the client throws.
//
// To add a subcommand: 1. give its arguments a place in Invocation; 2. declare
// it with AddSubcommand in the Add function of its kind.
#pragma once

#include "tools/dmctl/client.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace qdb
{

struct Invocation
{
    void (*run)(Client &, const Invocation &) = nullptr;

    std::string name; // of a platform function, an interface or a file
    std::string key;
    std::string database; // path of the file
    uint16_t type = 0;    // 0: not given
    uint32_t oid = 0;     // 0: not given
    std::vector<uint32_t> oids;
    std::vector<uint16_t> types;
    std::vector<std::string> assignments; // COLUMN=VALUE
    int status = 0;
    uint32_t count = 0;
    int times = 0;
    int skip = 0;
    double rate = 0;     // events a second; 0: as fast as they are taken
    uint32_t passes = 0; // 0: without end
    double interval = 1; // seconds between passes
    bool json = false;
};

// A subcommand couldn't find out what it was asked to.
class CannotLook : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

using Run = decltype(Invocation::run);

// Declares a subcommand, whose own arguments the caller adds to the result.
CLI::App *AddSubcommand(CLI::App &app, Invocation *pInvocation,
                        const char *name, const char *description, Run run);

// create, set, delete, status, list, show
void AddObjectCommands(CLI::App &app, Invocation *pInvocation);

// detach, attach, event, generate, churn, fault, calls, attribute, attributes
void AddBenchCommands(CLI::App &app, Invocation *pInvocation);

// audit
void AddAuditCommand(CLI::App &app, Invocation *pInvocation);

// host
void AddHostCommand(CLI::App &app, Invocation *pInvocation);

inline constexpr char kAssignmentHelp[] =
    "COLUMN=VALUE, with a JSON value or, failing that, a text";

// {"Speed": 3200, "BankLabel": "A"} from texts such as Speed=3200. Throws
// std::invalid_argument for a text that is no assignment.
Json ParseAssignments(const std::vector<std::string> &assignments);

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
