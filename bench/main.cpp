// qdb-bench: the service beside the floor, on the same objects in one run.
//
// Exit status: 0 measured; 1 something failed, a signal was lost, or the two
// sides did not send the same texts. No result is good or bad here.
#include "bench/floor.h"
#include "bench/scratch.h"
#include "bench/service.h"
#include "bench/subscriber.h"
#include "bench/workload.h"
#include "core/json.h"
#include "platform/standin/standin.h"
#include "tests/support/private_bus.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace qdb::bench
{
namespace
{

constexpr int kRepeats = 3;

// The warm-up's share of the objects: one in that many.
constexpr size_t kWarmUpShare = 10;

// By operation, as all arrays below.
using Outcomes = std::array<Outcome, kOperations.size()>;

// Of one operation, per second.
struct Rates
{
    double service;
    double floor;
};

struct Report
{
    std::array<Rates, kOperations.size()> rates;
    double loadBefore; // of the minute before the measuring and its end
    double loadAfter;
};

double LoadAverage()
{
    double load = 0;
    return getloadavg(&load, 1) == 1 ? load : 0;
}

template <typename Side>
Outcomes RunAll(Side &side, size_t count)
{
    const Workload workload(count);
    Outcomes outcomes = {};
    for (size_t i = 0; i < kOperations.size(); ++i)
    {
        workload.Prepare(kOperations[i]);
        outcomes[i] = side.Run(kOperations[i], workload.Oids());
    }
    return outcomes;
}

// One measurement: a new side with an empty database, warmed up first.
template <typename Side>
Outcomes Measure(Subscriber &subscriber, size_t count)
{
    Side side(subscriber);
    RunAll(side, (count + kWarmUpShare - 1) / kWarmUpShare);
    return RunAll(side, count);
}

void CheckSameTexts(const Outcomes &service, const Outcomes &floor)
{
    for (size_t i = 0; i < kOperations.size(); ++i)
    {
        if (service[i].signalBytes != floor[i].signalBytes)
        {
            throw std::runtime_error(
                std::string(NameOf(kOperations[i])) + ": the service sent " +
                std::to_string(service[i].signalBytes) + " bytes, the floor " +
                std::to_string(floor[i].signalBytes));
        }
    }
}

double MedianRate(const std::vector<Outcomes> &repeats, size_t operation,
                  size_t count)
{
    std::vector<double> seconds;
    for (const Outcomes &outcomes : repeats)
    {
        seconds.push_back(outcomes[operation].seconds);
    }
    std::ranges::sort(seconds);
    return static_cast<double>(count) / seconds[seconds.size() / 2];
}

// The two sides take turns, so that a change of the machine's load meets both.
Report RunBench(size_t count)
{
    Report report = {};
    report.loadBefore = LoadAverage();
    const test::PrivateBus bus;
    Subscriber subscriber; // forks, and so comes before any thread
    const BusThread busThread;
    standin::SetLog(0, nullptr);
    std::vector<Outcomes> service;
    std::vector<Outcomes> floor;
    for (int i = 0; i < kRepeats; ++i)
    {
        service.push_back(Measure<Service>(subscriber, count));
        floor.push_back(Measure<Floor>(subscriber, count));
        CheckSameTexts(service.back(), floor.back());
    }
    for (size_t i = 0; i < kOperations.size(); ++i)
    {
        report.rates[i] = {MedianRate(service, i, count),
                           MedianRate(floor, i, count)};
    }
    report.loadAfter = LoadAverage();
    return report;
}

void PrintTable(const Report &report, size_t count)
{
    const ObjTypeRow &row = MeasuredRow();
    std::printf("%s (type 0x%X, %zu columns), %zu objects, median of %d\n\n",
                row.table->name, row.objType, row.table->columns.size(), count,
                kRepeats);
    std::printf("%-28s %10s %10s %7s\n", "operations per second", "service",
                "floor", "ratio");
    for (size_t i = 0; i < kOperations.size(); ++i)
    {
        const Rates &rates = report.rates[i];
        std::printf("%-28s %10.0f %10.0f %7.2f\n", NameOf(kOperations[i]),
                    rates.service, rates.floor, rates.service / rates.floor);
    }
    std::printf("\n%u processors, load average %.2f before and %.2f after, "
                "database on %s.\nOnly the ratios mean anything, and only on a "
                "machine with nothing else to do.\n",
                std::thread::hardware_concurrency(), report.loadBefore,
                report.loadAfter, Scratch::OnTmpfs() ? "tmpfs" : "disk");
}

void PrintJson(const Report &report, size_t count)
{
    const ObjTypeRow &row = MeasuredRow();
    JsonPtr operations(json_array());
    for (size_t i = 0; i < kOperations.size(); ++i)
    {
        const Rates &rates = report.rates[i];
        json_array_append_new(operations.get(),
                              json_pack("{s:s, s:f, s:f, s:f}", "name",
                                        NameOf(kOperations[i]), "service",
                                        rates.service, "floor", rates.floor,
                                        "ratio", rates.service / rates.floor));
    }
    const JsonPtr whole(json_pack(
        "{s:s, s:I, s:I, s:i, s:i, s:f, s:f, s:b, s:o}", "table",
        row.table->name, "columns",
        static_cast<json_int_t>(row.table->columns.size()), "objects",
        static_cast<json_int_t>(count), "repeats", kRepeats, "processors",
        static_cast<int>(std::thread::hardware_concurrency()), "load_before",
        report.loadBefore, "load_after", report.loadAfter, "tmpfs",
        Scratch::OnTmpfs() ? 1 : 0, "operations", operations.release()));
    const JsonText text(
        json_dumps(whole.get(), JSON_INDENT(2) | JSON_REAL_PRECISION(6)));
    std::printf("%s\n", text.get());
}

int Run(int argc, char **argv)
{
    CLI::App app("Measures creates, refreshes and deletes of the whole service "
                 "beside a bare loop of the same SQLite, Jansson and sd-bus "
                 "calls.");
    size_t count = 5000;
    bool json = false;
    app.add_option("--count", count, "objects per measurement")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    app.add_flag("--json", json, "print the result as one JSON object");
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError &error)
    {
        return app.exit(error) == 0 ? 0 : 1;
    }
    const Report report = RunBench(count);
    json ? PrintJson(report, count) : PrintTable(report, count);
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
    std::signal(SIGPIPE, SIG_IGN); // as the service does
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
