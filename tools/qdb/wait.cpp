// qdb wait: ends when the mirror is ready, or when there is a certain row.
#include "tools/qdb/command.h"
#include "tools/qdb/select.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace qdb::tool
{
namespace
{

using Clock = std::chrono::steady_clock;

// A busy database is asked again, so that the time-out is kept.
constexpr int kBusyMs = 100;

struct Options
{
    std::string database;
    std::string bus;
    std::string what;      // "ready", or a table
    std::string condition; // "": any row
    double timeout = -1;   // in seconds; below 0: for ever
};

bool IsForReadiness(const Options &options)
{
    return options.what == "ready";
}

// A database that isn't there, or is busy, may change.
bool HasRow(qdb_mirror *mirror, const Options &options)
{
    const std::string condition =
        options.condition.empty() ? "1" : options.condition;
    Grid grid;
    const std::string sql = "SELECT 1 FROM " + QuotedName(options.what) +
                            " WHERE (" + condition + "\n) LIMIT 1";
    return Select(mirror, options.database, sql, &grid) == 0 &&
           !grid.rows.empty();
}

MirrorPtr Follow(const Options &options)
{
    // Readiness is the same for all tables, and signals of all of them wake the
    // loop: one that is small will do, so that nothing big is read at first.
    const char *const tables[] = {"TblSystemInfo", nullptr};
    qdb_options given = QDB_OPTIONS_INIT;
    given.database = options.database.c_str();
    given.bus = options.bus.empty() ? nullptr : options.bus.c_str();
    given.tables = tables;
    given.busy_ms = kBusyMs;
    return OpenMirror(given);
}

// Milliseconds for poll().
int Remaining(const Options &options, Clock::time_point start)
{
    constexpr double kDay = 86400;
    const std::chrono::duration<double> passed = Clock::now() - start;
    const double left =
        options.timeout < 0
            ? kDay
            : std::clamp(options.timeout - passed.count(), 0.0, kDay);
    return static_cast<int>(left * 1000 + 0.999);
}

int Wait(const Options &options)
{
    const Clock::time_point start = Clock::now();
    const MirrorPtr mirror = Follow(options);
    for (;;)
    {
        // Rows are looked for at each signal, and at each tick of the library,
        // which comes also without a bus.
        const bool isMore = qdb_mirror_process(mirror.get()) == 1;
        const qdb_state state = qdb_mirror_state(mirror.get());
        if (IsForReadiness(options) ? state == QDB_READY
                                    : HasRow(mirror.get(), options))
        {
            return kFine;
        }
        const int remaining = Remaining(options, start);
        if (remaining == 0)
        {
            Complain(IsForReadiness(options)
                         ? std::string("not in time: ") + StateText(state)
                         : "not in time");
            return kTimeout;
        }
        pollfd entry = {qdb_mirror_fd(mirror.get()), POLLIN, 0};
        if (poll(&entry, 1, isMore ? 0 : remaining) < 0 && errno != EINTR)
        {
            throw Failure(std::string("poll: ") + std::strerror(errno));
        }
    }
}

} // namespace

void AddWaitCommand(CLI::App &app, Work *pWork)
{
    const auto options = std::make_shared<Options>();
    CLI::App *command = app.add_subcommand(
        "wait", "wait until the mirror is ready, or until a table has a row");
    AddDatabaseOption(*command, &options->database);
    AddBusOption(*command, &options->bus);
    command->add_option("WHAT", options->what, "ready, or the table's name")
        ->required();
    command->add_option("CONDITION", options->condition,
                        "the row's, in SQL, such as \"Speed > 2400\"");
    command
        ->add_option("--timeout", options->timeout,
                     "give up then, with status 3")
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber);
    command->callback(
        [options, pWork]
        {
            if (IsForReadiness(*options) && !options->condition.empty())
            {
                throw CLI::ValidationError("ready takes no CONDITION");
            }
            *pWork = [options]
            {
                return Wait(*options);
            };
        });
}

} // namespace qdb::tool
