// The report: tables of figures, printed in one way or the other. Where there
// is a target, it stands behind its figure.
#include "bench/report.h"

#include "bench/scratch.h"
#include "core/json.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <thread>

namespace qdb::bench
{
namespace
{

// Ratios to the plain loop that the service is to reach: speed at least,
// processor time per operation at most. 0: none.
struct Workload
{
    const char *name;
    double speed;
    double processor;
};

// clang-format off
constexpr Workload kWorkloads[kWorkloadCount] = {
    {"population",                        1.9,  0.53},
    {"create by event",                   1.65, 0.55},
    {"refresh, one column, one type",     2.3,  0.40},
    {"refresh, one column, twenty types", 2.05, 0.45},
    {"refresh, nothing changed",          2.4,  0.44},
    {"delete",                            1.5,  0.70},
    {"bunch destroy",                     0,    0},
};
// clang-format on

constexpr const char *kSlowNames[kSlowCount] = {
    "create", "refresh, twenty types", "delete"};

constexpr double kWorkers = 10;
constexpr double kMiB = 1 << 20;

struct Row
{
    std::string name;
    std::vector<double> values; // NAN: none
};

struct Table
{
    const char *name;
    std::vector<const char *> columns;
    std::vector<Row> rows;
};

double Median(const std::vector<Slice> &slices,
              const std::function<double(const Slice &)> &value)
{
    std::vector<double> values;
    for (const Slice &slice : slices)
    {
        values.push_back(value(slice));
    }
    std::ranges::sort(values);
    const size_t half = values.size() / 2;
    return values.size() % 2 == 1 ? values[half]
                                  : (values[half - 1] + values[half]) / 2;
}

// Microseconds per operation.
double PerOperation(const std::vector<Slice> &slices, Sample Slice::*side,
                    double Sample::*part)
{
    const auto value = [=](const Slice &slice)
    {
        return slice.*side.*part * 1e6 / slice.operations;
    };
    return Median(slices, value);
}

// Slice by slice, since a change of the machine's load meets both sides.
double Ratio(const std::vector<Slice> &slices, double Sample::*part)
{
    const auto value = [=](const Slice &slice)
    {
        return slice.service.*part / slice.plain.*part;
    };
    return Median(slices, value);
}

double OrNone(double target)
{
    return target == 0 ? NAN : target;
}

Table Workloads(const Report &report)
{
    Table table = {"workloads",
                   {"service/s", "us", "plain/s", "us_plain", "speed",
                    ">=", "cpu", "<=", "us_events", "us_answers"},
                   {}};
    for (size_t i = 0; i < kWorkloadCount; ++i)
    {
        const std::vector<Slice> &slices = report.slices[i];
        const auto us = [&](Sample Slice::*side, double Sample::*part)
        {
            return PerOperation(slices, side, part);
        };
        table.rows.push_back(
            {kWorkloads[i].name,
             {1e6 / us(&Slice::service, &Sample::elapsed),
              us(&Slice::service, &Sample::processor),
              1e6 / us(&Slice::plain, &Sample::elapsed),
              us(&Slice::plain, &Sample::processor),
              1 / Ratio(slices, &Sample::elapsed), OrNone(kWorkloads[i].speed),
              Ratio(slices, &Sample::processor),
              OrNone(kWorkloads[i].processor),
              us(&Slice::service, &Sample::events),
              us(&Slice::service, &Sample::answers)}});
    }
    return table;
}

double SlowTarget(const SlowRun &run, size_t step)
{
    return step == kSlowDelete || run.delay == 0 ? NAN
           : run.delay <= 200                    ? 0.6
           : run.delay <= 1000                   ? 0.5
                                                 : 0.85;
}

// What a delay leaves possible: ten workers that wait for the calls of their
// operations, and no more than without a delay.
Table SlowPlatform(const Report &report)
{
    Table table = {
        "each call about an object takes",
        {"ms", "hanging", "calls/op", "service/s", "possible/s", "share", ">="},
        {}};
    const SlowRun &quick = report.slow.front();
    for (size_t step = 0; step < kSlowCount; ++step)
    {
        for (const SlowRun &run : report.slow)
        {
            const double waiting = quick.calls[step] * run.delay / 1e6;
            const double possible = std::min(
                quick.perSecond[step], kWorkers / std::max(waiting, 1e-9));
            table.rows.push_back(
                {kSlowNames[step],
                 {run.delay / 1e3, run.hanging ? 1.0 : 0.0, run.calls[step],
                  run.perSecond[step], possible, run.perSecond[step] / possible,
                  SlowTarget(run, step)}});
        }
    }
    return table;
}

// The run with the lowest p99 first.
Table Latencies(const Report &report)
{
    Table table = {"1000 changes a second, microseconds",
                   {"p50", "<", "p99", "<", "p99.9", "load"},
                   {}};
    std::vector<Latency> runs = report.latencies;
    std::ranges::sort(runs, {}, &Latency::p99);
    for (const Latency &run : runs)
    {
        table.rows.push_back(
            {table.rows.empty() ? "best run" : "another run",
             {run.p50, 250, run.p99, 3000, run.p999, run.load}});
    }
    return table;
}

// Memory is above what there was before the database was opened.
Table TheRest(const Report &report)
{
    const StartUp &start = report.startUp;
    const auto above = [](int64_t bytes, int64_t before)
    {
        return static_cast<double>(bytes - before) / kMiB;
    };
    const auto heap = [&](const Memory &memory)
    {
        return above(memory.heap, start.beforeOpen.heap);
    };
    const auto resident = [&](const Memory &memory)
    {
        return above(memory.resident, start.beforeOpen.resident);
    };
    const Sample &idle = report.idle;
    return {"the rest",
            {"value", "<="},
            {{"idle, % of one processor",
              {100 * idle.processor / idle.elapsed, 2.5}},
             {"idle, answers, not counted, %",
              {100 * idle.answers / idle.elapsed, NAN}},
             {"heap when populated, MiB", {heap(start.populated), 9}},
             {"heap after changes, MiB", {heap(report.changed), 9}},
             {"changes", {static_cast<double>(report.changes), NAN}},
             {"resident when populated, MiB", {resident(start.populated), NAN}},
             {"resident after changes, MiB", {resident(report.changed), NAN}},
             {"start to readiness, s", {start.ready, NAN}},
             {"load average before", {report.loadBefore, NAN}},
             {"load average after", {report.loadAfter, NAN}}}};
}

void PrintTable(const Table &table)
{
    std::printf("\n%-34s", table.name);
    for (const char *column : table.columns)
    {
        std::printf(" %10s", column);
    }
    for (const Row &row : table.rows)
    {
        std::printf("\n%-34s", row.name.c_str());
        for (const double value : row.values)
        {
            std::isnan(value)
                ? std::printf(" %10s", "")
                : std::printf(" %10.*f", value < 100 ? 2 : 0, value);
        }
    }
    std::printf("\n");
}

// A target is the member "target" of what its figure's name ends in.
json_t *JsonOf(const Table &table)
{
    json_t *rows = json_array();
    for (const Row &row : table.rows)
    {
        json_t *json = json_pack("{s:s}", "name", row.name.c_str());
        for (size_t i = 0; i < row.values.size(); ++i)
        {
            const std::string column = table.columns[i];
            const bool isTarget = column.find_first_of("<>") == 0;
            const std::string member =
                isTarget ? std::string(table.columns[i - 1]) + "_target"
                         : column;
            json_object_set_new(json, member.c_str(),
                                std::isnan(row.values[i])
                                    ? json_null()
                                    : json_real(row.values[i]));
        }
        json_array_append_new(rows, json);
    }
    return rows;
}

} // namespace

void Print(const Report &report, const Settings &settings, bool asJson)
{
    const auto processors =
        static_cast<int>(std::thread::hardware_concurrency());
    const JsonPtr whole(json_pack(
        "{s:s, s:I, s:I, s:b, s:i, s:b}", "service", settings.service.c_str(),
        "objects", json_int_t{settings.objects}, "subscribers",
        json_int_t{settings.subscribers}, "quick", settings.quick, "processors",
        processors, "tmpfs", OnTmpfs()));
    if (!asJson)
    {
        const JsonText head(json_dumps(whole.get(), 0));
        std::printf("%s\nMedians of slices. Only the ratios mean anything, and "
                    "only on a machine with nothing else to do.\n",
                    head.get());
    }
    for (const Table &table : {Workloads(report), SlowPlatform(report),
                               Latencies(report), TheRest(report)})
    {
        asJson ? static_cast<void>(json_object_set_new(whole.get(), table.name,
                                                       JsonOf(table)))
               : PrintTable(table);
    }
    if (asJson)
    {
        const JsonText text(
            json_dumps(whole.get(), JSON_INDENT(2) | JSON_REAL_PRECISION(6)));
        std::printf("%s\n", text.get());
    }
}

} // namespace qdb::bench
