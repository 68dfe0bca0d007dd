#include "tools/qdb/status_text.h"

#include "core/grouped.h"
#include "tools/qdb/state.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace qdb::tool
{
namespace
{

constexpr double kNanoseconds = 1e9;

[[gnu::format(printf, 1, 2)]] std::string Format(const char *format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

std::string Duration(uint64_t nanoseconds)
{
    const double seconds = static_cast<double>(nanoseconds) / kNanoseconds;
    constexpr double kMinute = 60;
    constexpr double kHour = 3600;
    constexpr double kDay = 86400;
    if (seconds < 0.001)
    {
        return Format("%.0f us", seconds * 1e6);
    }
    if (seconds < 1)
    {
        return Format("%.0f ms", seconds * 1e3);
    }
    if (seconds < 2 * kMinute)
    {
        return Format("%.1f s", seconds);
    }
    if (seconds < 2 * kHour)
    {
        return Format("%.0f min", seconds / kMinute);
    }
    return seconds < 2 * kDay ? Format("%.1f h", seconds / kHour)
                              : Format("%.1f days", seconds / kDay);
}

// A look, with the one before it.
struct Looks
{
    const Statistics &now;
    const Statistics *before;

    uint64_t Sum(const char *name, const char *label = "",
                 const char *butNot = "") const
    {
        return now.Sum(name, label, butNot);
    }
    std::string Ago(const char *name) const
    {
        const uint64_t moment = now.Value(name);
        return moment == 0 || moment > now.now
                   ? "never"
                   : Duration(now.now - moment) + " ago";
    }
    // " (12.0/s)", or nothing.
    std::string Rate(const char *name, const char *label,
                     const char *butNot) const
    {
        if (before == nullptr || now.now <= before->now)
        {
            return {};
        }
        const uint64_t more =
            now.Sum(name, label, butNot) - before->Sum(name, label, butNot);
        const double seconds =
            static_cast<double>(now.now - before->now) / kNanoseconds;
        return Format(" (%.1f/s)", static_cast<double>(more) / seconds);
    }
    std::string Counted(const char *name, const char *label = "",
                        const char *butNot = "") const
    {
        return Grouped(Sum(name, label, butNot)) + Rate(name, label, butNot);
    }
};

std::string Line(const char *title, const std::string &text)
{
    return Format("%-11s", title) + text + "\n";
}

std::string Percentile(const Series &series, double share)
{
    return Duration(PercentileOf(series.cells, share));
}

std::string Latency(const Statistics &statistics, const char *name)
{
    constexpr double kHalf = 0.5;
    constexpr double kMost = 0.99;
    const Family *family = statistics.Find(name);
    if (family == nullptr || family->series.empty() ||
        family->series[0].cells.size() != kHistogramCells ||
        family->series[0].cells.back() == 0)
    {
        return "none yet";
    }
    const Series &series = family->series[0];
    return "half within " + Percentile(series, kHalf) + ", 99 % within " +
           Percentile(series, kMost);
}

// Workers that have been at one event for at least so long.
size_t BusyFor(const Statistics &statistics, uint64_t nanoseconds)
{
    const Family *family = statistics.Find("worker_busy");
    return family == nullptr
               ? 0
               : static_cast<size_t>(std::ranges::count_if(
                     family->series,
                     [&](const Series &series)
                     {
                         return !series.cells.empty() && series.cells[0] != 0 &&
                                series.cells[0] + nanoseconds <= statistics.now;
                     }));
}

std::string Figures(const Looks &looks)
{
    const Statistics &now = looks.now;
    std::string text;
    text += Line("events", looks.Counted("events_received") + " received, " +
                               Grouped(now.Value("queue_length")) +
                               " waiting (at most " +
                               Grouped(now.Value("queue_most")) + "), last " +
                               looks.Ago("last_event"));
    text +=
        Line("workers", Grouped(now.Value("workers_admitted")) + " let in, " +
                            Grouped(BusyFor(now, 0)) + " busy");
    text += Line(
        "objects",
        looks.Counted("objects", "fate=\"created\"") + " created, " +
            looks.Counted("objects", "fate=\"changed\"") + " changed, " +
            looks.Counted("objects", "fate=\"unchanged\"") + " unchanged, " +
            looks.Counted("objects", "fate=\"removed\"") + " removed");
    text += Line("rows", Grouped(now.Sum("table_rows")) + ", " +
                             looks.Counted("table_changes") + " changes");
    text += Line("signals", looks.Counted("signals", "\"sent\"") + " sent");
    text +=
        Line("telemetry", looks.Counted("telemetry_records", "\"written\"") +
                              " records written");
    text += Line("to commit", Latency(now, "event_to_commit"));
    text += Line("to signal", Latency(now, "event_to_signal"));
    text += Line("passes", looks.Counted("passes") + ", the last one took " +
                               Duration(now.Value("pass_length")) +
                               ", it began " + looks.Ago("pass_began"));
    return text;
}

// What isn't as it should be, in plain words.
struct Trouble
{
    const char *family;
    const char *label; // of the series that count
    const char *words; // behind the number
    const char *butNot = "";
};

// A reload also looks for what a server hasn't got, and finds what population
// has made.
constexpr char kReload[] = "road=\"reload\"";

constexpr Trouble kTroubles[] = {
    {"events_dropped", "malformed", "events dropped: malformed"},
    {"events_dropped", "no_memory", "events dropped: no memory"},
    {"events_dropped", "over_bound",
     "events from the bus dropped: too many wait already"},
    {"events_dropped", "unknown_type", "events dropped: of unknown type"},
    {"objects", "fate=\"incomplete\"",
     "objects stored without a parent, a link or an array"},
    {"objects", "fate=\"vanished\"", "objects given up: vanished", kReload},
    {"objects", "fate=\"busy\"", "objects given up: the database was busy"},
    {"objects", "fate=\"constraint\"",
     "objects left as they were: their OID is in use", kReload},
    {"objects", "fate=\"invalid\"", "objects given up: not readable"},
    {"objects", "fate=\"no_memory\"", "objects given up: no memory"},
    {"objects", "fate=\"failed\"", "objects given up: see the log"},
    {"failed_waiting", "", "failed operations wait for their next try"},
    {"signals", "\"failed\"", "changes not told: the bus refused them"},
    {"signals", "\"too_long\"", "changes not told: too long for the bus"},
    {"signals", "\"no_bus\"", "changes not told: no bus"},
    {"telemetry_records", "\"full\"",
     "telemetry records lost: the pipe is full"},
    {"telemetry_records", "\"failed\"",
     "telemetry records lost: the pipe failed"},
    {"database_refusals", "", "statements met a busy database"},
};

std::string Unusual(const Looks &looks)
{
    constexpr uint64_t kStuck = 1000000000;
    std::string text;
    for (const Trouble &trouble : kTroubles)
    {
        if (looks.Sum(trouble.family, trouble.label, trouble.butNot) != 0)
        {
            text +=
                "  " +
                looks.Counted(trouble.family, trouble.label, trouble.butNot) +
                " " + trouble.words + "\n";
        }
    }
    if (const size_t stuck = BusyFor(looks.now, kStuck))
    {
        text += "  " + Grouped(stuck) +
                " workers at one event for longer than a second\n";
    }
    return text.empty() ? text : "unusual, since the start:\n" + text;
}

} // namespace

std::string StatusForPeople(const Statistics &now, const Statistics *before)
{
    const Looks looks = {now, before};
    std::string head =
        "quillondb (" + std::to_string(now.pid) + ") " + StateInWords(now);
    if (now.isRunning && now.Value("phase_since") <= now.now)
    {
        head +=
            ", started " + Duration(now.now - now.Value("started")) + " ago";
    }
    return head + "\n" + Figures(looks) + Unusual(looks);
}

} // namespace qdb::tool
