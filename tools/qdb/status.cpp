// qdb status: how the service is, told from its statistics file.

#include "tools/qdb/command.h"
#include "tools/qdb/state.h"
#include "tools/qdb/status_text.h"

#include <chrono>
#include <optional>
#include <thread>

namespace qdb::tool
{
namespace
{

constexpr const char *kInstalledStatistics =
    "/var/run/quillondatabase/statistics";
constexpr int kNotRunning = 3;

struct Options
{
    std::string path = kInstalledStatistics;
    bool asJson = false;
    bool asPrometheus = false;
    double watch = 0; // seconds between two looks; 0: one look
};

int StatusFor(const std::optional<Statistics> &statistics)
{
    if (!statistics || !statistics->isRunning)
    {
        return kNotRunning;
    }
    return StateOf(*statistics) == State::Live ? kFine : kFailed;
}

std::string TextFor(const Options &options,
                    const std::optional<Statistics> &now,
                    const std::optional<Statistics> &before)
{
    if (!now)
    {
        // Programs are to be told, too.
        const Statistics none;
        return options.asJson         ? StatusForPrograms(none)
               : options.asPrometheus ? StatusForPrometheus(none)
                                      : "quillondb isn't running\n";
    }
    // Those of another life tell nothing of this one's rates.
    const bool isSameLife = before && before->pid == now->pid;
    return options.asJson ? StatusForPrograms(*now)
           : options.asPrometheus
               ? StatusForPrometheus(*now)
               : StatusForPeople(*now, isSameLife ? &*before : nullptr);
}

int Show(const Options &options)
{
    constexpr const char *kClearScreen = "\x1b[H\x1b[2J";
    std::optional<Statistics> before;
    for (;;)
    {
        std::optional<Statistics> now = ReadStatistics(options.path);
        const bool isScreen = options.watch > 0 && IsTerminal();
        Print((isScreen ? kClearScreen : "") + TextFor(options, now, before));
        if (options.watch <= 0)
        {
            return StatusFor(now);
        }
        before = std::move(now);
        std::this_thread::sleep_for(
            std::chrono::duration<double>(options.watch));
    }
}

} // namespace

void AddStatusCommand(CLI::App &app, Work *pWork)
{
    const auto options = std::make_shared<Options>();
    CLI::App *command = app.add_subcommand(
        "status", "tell how the service is: what it does, and what it lost");
    command->add_option("--statistics", options->path, "the statistics file")
        ->type_name("PATH")
        ->capture_default_str();
    CLI::Option *json =
        command->add_flag("--json", options->asJson, "print a JSON object");
    command
        ->add_flag("--prometheus", options->asPrometheus,
                   "print Prometheus' text format")
        ->excludes(json);
    command
        ->add_option("--watch", options->watch,
                     "look again and again, with rates, every so many seconds")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.1, 86400.0));
    command->footer("Exit status: 0 live, 1 not live, 3 not running.");
    command->callback(
        [options, pWork]
        {
            *pWork = [options]
            {
                return Show(*options);
            };
        });
}

} // namespace qdb::tool
