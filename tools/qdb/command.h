// What the subcommands of qdb have in common: how they enter the command line,
// how they fail and how they print.
#pragma once

#include <quillondb/client.h>

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace qdb::tool
{

// Exit statuses.
inline constexpr int kFine = 0;
inline constexpr int kFailed = 1;
inline constexpr int kUsage = 2;
inline constexpr int kTimeout = 3;

inline constexpr const char *kInstalledDatabase =
    "/var/run/quillondatabase/DMLiveObjectDatabase.db";

// Ends the command with kFailed and its text on standard error.
struct Failure : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// Nobody reads standard output any more: ends the command with kFine.
struct ReaderGone
{
};

// Does what the command line asks for, and gives the exit status.
using Work = std::function<int()>;

// Each adds its subcommands. One that is on the command line puts its work in
// *pWork, which has to live as long as the application.
void AddReadCommands(CLI::App &app, Work *pWork);
void AddWatchCommand(CLI::App &app, Work *pWork);
void AddWaitCommand(CLI::App &app, Work *pWork);
void AddStatusCommand(CLI::App &app, Work *pWork);

// create, sql and markdown. `name` is what their errors begin with.
void AddSchemaCommands(CLI::App &app, const std::string &name, Work *pWork);

// Options of more than one subcommand.
void AddDatabaseOption(CLI::App &command, std::string *pPath);
void AddBusOption(CLI::App &command, std::string *pAddress);

// Writes to standard output, at once and whole. Throws ReaderGone or Failure.
void Print(const std::string &text);

// A line on standard error.
void Complain(const std::string &text);

// Standard output is a terminal; and may be coloured.
bool IsTerminal();
bool IsColoured();

struct CloseMirror
{
    void operator()(qdb_mirror *mirror) const
    {
        qdb_mirror_close(mirror);
    }
};
using MirrorPtr = std::unique_ptr<qdb_mirror, CloseMirror>;

// A handle. Throws Failure.
MirrorPtr OpenMirror(const qdb_options &options);

// The Failure that a negative result of a call about the table stands for.
Failure FailureOf(int result, const std::string &table,
                  const std::string &database);

// Throws Failure if there is a database, and no such table in it.
void CheckTable(qdb_mirror *mirror, const std::string &table,
                const std::string &database);

// For people.
const char *StateText(qdb_state state);

} // namespace qdb::tool
