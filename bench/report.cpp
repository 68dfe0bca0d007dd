#include "bench/report.h"

#include "core/json.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace qdb::bench
{
namespace
{

// Ratios to the plain loop that the service is to reach: speed at least,
// processor time per operation at most.
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
    {"bunch destroy",                     NAN,  NAN},
};
// clang-format on

template <typename Value>
double Median(const std::vector<Slice> &slices, Value value)
{
    std::vector<double> values;
    for (const Slice &slice : slices)
    {
        values.push_back(value(slice));
    }
    std::ranges::sort(values);
    const size_t half = values.size() / 2;
    return (values[half] + values[(values.size() - 1) / 2]) / 2;
}

// Microseconds per operation.
double PerOperation(const std::vector<Slice> &slices, Sample Slice::*side,
                    double Sample::*part)
{
    return Median(slices,
                  [=](const Slice &slice)
                  {
                      return slice.*side.*part * 1e6 / slice.operations;
                  });
}

double Ratio(const std::vector<Slice> &slices, double Sample::*part)
{
    return Median(slices,
                  [=](const Slice &slice)
                  {
                      return slice.service.*part / slice.plain.*part;
                  });
}

Figures::Row RowOf(const Workload &workload, const std::vector<Slice> &slices)
{
    const auto us = [&](Sample Slice::*side, double Sample::*part)
    {
        return PerOperation(slices, side, part);
    };
    return {workload.name,
            {1e6 / us(&Slice::service, &Sample::elapsed),
             us(&Slice::service, &Sample::processor),
             1e6 / us(&Slice::plain, &Sample::elapsed),
             us(&Slice::plain, &Sample::processor),
             1 / Ratio(slices, &Sample::elapsed), workload.speed,
             Ratio(slices, &Sample::processor), workload.processor,
             us(&Slice::service, &Sample::events),
             us(&Slice::service, &Sample::answers)}};
}

json_t *JsonOf(const Figures &table)
{
    json_t *rows = json_array();
    for (const Figures::Row &row : table.rows)
    {
        json_t *json = json_pack("{s:s}", "name", row.name.c_str());
        for (size_t i = 0; i < row.values.size(); ++i)
        {
            const std::string column = table.columns[i];
            const std::string member =
                column[1] == '=' ? std::string(table.columns[i - 1]) + "_target"
                                 : column;
            if (!std::isnan(row.values[i]))
            {
                json_object_set_new(json, member.c_str(),
                                    json_real(row.values[i]));
            }
        }
        json_array_append_new(rows, json);
    }
    return rows;
}

} // namespace

Figures FiguresOf(const Slices &slices)
{
    Figures figures = {"workloads",
                       {"service/s", "us", "plain/s", "plain us", "speed",
                        ">=", "cpu", "<=", "events us", "answers us"},
                       {}};
    for (size_t i = 0; i < kWorkloadCount; ++i)
    {
        figures.rows.push_back(RowOf(kWorkloads[i], slices[i]));
    }
    return figures;
}

void PrintText(const std::vector<Figures> &tables)
{
    for (const Figures &table : tables)
    {
        std::printf("\n%-36s", table.name);
        for (const char *column : table.columns)
        {
            std::printf(" %10s", column);
        }
        for (const Figures::Row &row : table.rows)
        {
            std::printf("\n%-36s", row.name.c_str());
            for (const double value : row.values)
            {
                std::isnan(value)
                    ? std::printf(" %10s", "")
                    : std::printf(" %10.*f", value < 100 ? 2 : 0, value);
            }
        }
        std::printf("\n");
    }
}

void PrintJson(const std::vector<Figures> &tables)
{
    const JsonPtr whole(json_object());
    for (const Figures &table : tables)
    {
        json_object_set_new(whole.get(), table.name, JsonOf(table));
    }
    const JsonText text(
        json_dumps(whole.get(), JSON_INDENT(2) | JSON_REAL_PRECISION(6)));
    std::printf("%s\n", text.get());
}

} // namespace qdb::bench
