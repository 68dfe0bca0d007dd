// qdb-bench: the service beside a loop of its libraries' calls, on the same
// objects in one run.
//
// Exit status: 0 measured; 1 something failed, a signal was lost, or the sides
// did not do the same work. No result is good or bad here.
#include "bench/bench.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>

namespace qdb::bench
{
namespace
{

// The one of the same build.
std::string DefaultService()
{
    const std::filesystem::path self =
        std::filesystem::read_symlink("/proc/self/exe");
    return self.parent_path().parent_path() / "tests/service_under_test";
}

int Run(int argc, char **argv)
{
    CLI::App app("Measures the service beside a bare loop of the same SQLite, "
                 "Jansson and sd-bus calls.");
    Settings settings;
    settings.service = DefaultService();
    bool json = false;
    app.add_option("--service", settings.service,
                   "the program to measure, also of another commit")
        ->check(CLI::ExistingFile)
        ->capture_default_str();
    app.add_option("--objects", settings.objects, "objects that populate it")
        ->check(CLI::Range(500, 500000))
        ->capture_default_str();
    app.add_option("--subscribers", settings.subscribers,
                   "processes that receive the signals")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();
    app.add_option("--changes", settings.changes,
                   "changes before the heap is looked at again; what the run "
                   "makes anyway if that is more");
    app.add_flag("--quick", settings.quick,
                 "one round, one latency run and ten idle seconds");
    app.add_flag("--json", json, "print the result as one JSON object");
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError &error)
    {
        return app.exit(error) == 0 ? 0 : 1;
    }
    const std::vector<Figures> all = RunBench(settings);
    json ? PrintJson(all) : PrintText(all);
    if (std::fflush(stdout) != 0)
    {
        throw std::runtime_error("can't write to standard output");
    }
    return 0;
}

} // namespace
} // namespace qdb::bench

int main(int argc, char **argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    try
    {
        return qdb::bench::Run(argc, argv);
    }
    catch (const std::exception &failure)
    {
        std::fprintf(stderr, "qdb-bench: %s\n", failure.what());
        return 1;
    }
}
