// The figures for programs: all that the file has, whatever it is called.

#include "core/json.h"
#include "tools/qdb/state.h"
#include "tools/qdb/status_text.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <string_view>

namespace qdb::tool
{
namespace
{

constexpr double kNanoseconds = 1e9;
constexpr std::string_view kPrefix = "quillondb_";

double Seconds(uint64_t nanoseconds)
{
    return static_cast<double>(nanoseconds) / kNanoseconds;
}

// --- JSON --------------------------------------------------------------------

JsonPtr HistogramValue(const Series &series)
{
    JsonPtr buckets(json_array());
    for (uint32_t i = 0; i < kHistogramBuckets && i < series.cells.size(); ++i)
    {
        json_array_append_new(
            buckets.get(),
            json_integer(static_cast<json_int_t>(series.cells[i])));
    }
    return JsonPtr(json_pack("{s:o,s:f}", "buckets", buckets.release(), "sum",
                             Seconds(series.cells.back())));
}

JsonPtr Value(const Family &family, const Series &series, uint64_t now)
{
    const uint64_t value = series.cells.front();
    switch (family.kind)
    {
    case FigureKind::Histogram:
        return HistogramValue(series);
    case FigureKind::Moment:
        return JsonPtr(value == 0 || value > now
                           ? json_null()
                           : json_real(Seconds(now - value)));
    default:
        return JsonPtr(family.unit == FigureUnit::Nanoseconds
                           ? json_real(Seconds(value))
                           : json_integer(static_cast<json_int_t>(value)));
    }
}

// Calls take(name, value) for each label of road="bus",fate="created".
template <typename Take>
void ForEachLabel(std::string_view labels, Take take)
{
    while (!labels.empty())
    {
        const size_t name = labels.find("=\"");
        const size_t end =
            name == labels.npos ? labels.npos : labels.find('"', name + 2);
        if (end == labels.npos)
        {
            return;
        }
        take(std::string(labels.substr(0, name)),
             std::string(labels.substr(name + 2, end - name - 2)));
        labels.remove_prefix(std::min(labels.size(), end + 2));
    }
}

JsonPtr FamilyValue(const Family &family, uint64_t now)
{
    if (family.series.size() == 1 && family.series[0].labels.empty())
    {
        return Value(family, family.series[0], now);
    }
    JsonPtr all(json_array());
    for (const Series &series : family.series)
    {
        JsonPtr one(json_object());
        ForEachLabel(series.labels,
                     [&](const std::string &name, const std::string &value)
                     {
                         json_object_set_new(one.get(), name.c_str(),
                                             json_string(value.c_str()));
                     });
        json_object_set_new(one.get(), "value",
                            Value(family, series, now).release());
        json_array_append_new(all.get(), one.release());
    }
    return all;
}

// --- Prometheus --------------------------------------------------------------

struct Clock
{
    uint64_t monotonic; // at the look
    double unixTime;    // at the same moment
};

std::string Number(double value)
{
    char text[40];
    std::snprintf(text, sizeof(text), "%.15g", value);
    return text;
}

std::string NameOf(const Family &family)
{
    std::string name(kPrefix);
    name += family.name;
    if (family.kind == FigureKind::Moment)
    {
        return name + "_timestamp_seconds";
    }
    if (family.unit == FigureUnit::Nanoseconds)
    {
        name += "_seconds";
    }
    return family.kind == FigureKind::Counter ? name + "_total" : name;
}

const char *TypeOf(const Family &family)
{
    switch (family.kind)
    {
    case FigureKind::Counter:
        return "counter";
    case FigureKind::Histogram:
        return "histogram";
    default:
        return "gauge";
    }
}

std::string Sample(const std::string &name, const std::string &labels,
                   double value)
{
    return name + (labels.empty() ? "" : "{" + labels + "}") + " " +
           Number(value) + "\n";
}

std::string HistogramSamples(const std::string &name, const Series &series)
{
    constexpr double kMicrosecond = 1e-6;
    const std::string lead = series.labels.empty() ? "" : series.labels + ",";
    std::string text;
    uint64_t sum = 0;
    for (uint32_t i = 0; i < kHistogramBuckets; ++i)
    {
        sum += series.cells[i];
        const bool isLast = i + 1 == kHistogramBuckets;
        const double end = kMicrosecond * static_cast<double>(uint64_t{1} << i);
        text += Sample(name + "_bucket",
                       lead + "le=\"" + (isLast ? "+Inf" : Number(end)) + "\"",
                       static_cast<double>(sum));
    }
    text += Sample(name + "_sum", series.labels, Seconds(series.cells.back()));
    return text +
           Sample(name + "_count", series.labels, static_cast<double>(sum));
}

// Nothing for a moment that never was.
std::string Samples(const Family &family, const Series &series,
                    const Clock &clock)
{
    const std::string name = NameOf(family);
    const uint64_t value = series.cells.front();
    if (family.kind == FigureKind::Histogram)
    {
        return series.cells.size() == kHistogramCells
                   ? HistogramSamples(name, series)
                   : "";
    }
    if (family.kind == FigureKind::Moment)
    {
        return value == 0 || value > clock.monotonic
                   ? ""
                   : Sample(name, series.labels,
                            clock.unixTime - Seconds(clock.monotonic - value));
    }
    return Sample(name, series.labels,
                  family.unit == FigureUnit::Nanoseconds
                      ? Seconds(value)
                      : static_cast<double>(value));
}

std::string States(State now)
{
    constexpr State kStates[] = {
        State::NotRunning, State::Starting,           State::Filling,
        State::Live,       State::LiveWithoutSignals, State::Detached,
        State::Stopping,
    };
    const std::string name = std::string(kPrefix) + "state";
    std::string text = "# HELP " + name +
                       " 1 for the state that the service is in.\n# TYPE " +
                       name + " gauge\n";
    for (const State state : kStates)
    {
        text +=
            Sample(name, std::string("state=\"") + tool::NameOf(state) + "\"",
                   state == now ? 1 : 0);
    }
    return text;
}

} // namespace

std::string StatusForPrograms(const Statistics &statistics)
{
    JsonPtr figures(json_object());
    for (const Family &family : statistics.families)
    {
        json_object_set_new(figures.get(), family.name.c_str(),
                            FamilyValue(family, statistics.now).release());
    }
    const JsonPtr all(json_pack(
        "{s:b,s:s,s:I,s:o}", "running", statistics.isRunning ? 1 : 0, "state",
        tool::NameOf(StateOf(statistics)), "pid",
        static_cast<json_int_t>(statistics.pid), "figures", figures.release()));
    const JsonText text(json_dumps(all.get(), JSON_COMPACT));
    return text == nullptr ? "" : std::string(text.get()) + "\n";
}

std::string StatusForPrometheus(const Statistics &statistics)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const Clock clock = {statistics.now,
                         static_cast<double>(now.tv_sec) +
                             static_cast<double>(now.tv_nsec) / kNanoseconds};
    std::string text = States(StateOf(statistics));
    for (const Family &family : statistics.families)
    {
        const std::string name = NameOf(family);
        text += "# HELP " + name + " " + family.help + "\n# TYPE " + name +
                " " + TypeOf(family) + "\n";
        for (const Series &series : family.series)
        {
            text += Samples(family, series, clock);
        }
    }
    return text;
}

} // namespace qdb::tool
