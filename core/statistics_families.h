// The names of all figures, as they stand in the file.
#pragma once

#include "core/statistics.h"
#include "objects/schema/rows.h"

#include <algorithm>
#include <span>
#include <string_view>

namespace qdb
{

struct FigureLabel
{
    const char *name = nullptr;
    std::span<const std::string_view> values = {};

    constexpr size_t Ways() const
    {
        return values.empty() ? 1 : values.size();
    }
};

// The cells from `at` on, one or kHistogramCells for each value of the outer
// label and, within that, for each of the inner one.
struct FigureFamily
{
    const char *name;
    const char *help;
    FigureKind kind;
    FigureUnit unit;
    size_t at;
    FigureLabel outer = {};
    FigureLabel inner = {};

    constexpr size_t SeriesCount() const
    {
        return outer.Ways() * inner.Ways();
    }
};

namespace figures
{

constexpr auto TableNames()
{
    std::array<std::string_view, ObjectTypeTable.size()> names;
    std::ranges::transform(ObjectTypeTable, names.begin(),
                           [](const ObjTypeRow &row)
                           {
                               return std::string_view(row.table->name);
                           });
    std::ranges::sort(names);
    return names;
}

// Once each; there are so many, or this isn't a constant.
constexpr auto DistinctTables()
{
    std::array<std::string_view, kCountedTables> tables;
    const auto end = std::ranges::unique_copy(TableNames(), tables.begin()).out;
    return end == tables.end() ? tables : throw "kCountedTables is too large";
}

inline constexpr auto kTables = DistinctTables();

inline constexpr std::string_view kEvents[] = {
    "create",   "refresh", "destroy", "status_change",
    "raw_data", "bus",     "detach",  "other"};
inline constexpr std::string_view kCauses[] = {"malformed", "no_memory",
                                               "over_bound", "unknown_type"};
inline constexpr std::string_view kWorkers[] = {"1", "2", "3", "4", "5",
                                                "6", "7", "8", "9", "10"};
inline constexpr std::string_view kRoads[] = {"data_manager", "bus",
                                              "population", "reload", "drain"};
inline constexpr std::string_view kFates[] = {
    "ignored",    "legacy",  "no_row",     "passed_on", "unchanged", "changed",
    "created",    "removed", "incomplete", "stopped",   "kept",      "vanished",
    "constraint", "invalid", "busy",       "no_memory", "failed"};
inline constexpr std::string_view kSignalEnds[] = {"sent", "failed", "too_long",
                                                   "not_ready", "no_bus"};
inline constexpr std::string_view kRecordEnds[] = {"written", "no_reader",
                                                   "full", "failed"};
inline constexpr std::string_view kBusy[] = {"busy", "locked"};

static_assert(std::size(kEvents) == kCountOf<EventKind> &&
              std::size(kCauses) == kCountOf<DropCause> &&
              std::size(kWorkers) == kStatisticsWorkers &&
              std::size(kRoads) == kCountOf<Road> &&
              std::size(kFates) == kCountOf<Fate> &&
              std::size(kSignalEnds) == kCountOf<SignalEnd> &&
              std::size(kRecordEnds) == kCountOf<RecordEnd> &&
              std::size(kBusy) == kCountOf<BusyStatus>);

inline constexpr auto kCounter = FigureKind::Counter;
inline constexpr auto kGauge = FigureKind::Gauge;
inline constexpr auto kMoment = FigureKind::Moment;
inline constexpr auto kHistogram = FigureKind::Histogram;
inline constexpr auto kNone = FigureUnit::None;
inline constexpr auto kTime = FigureUnit::Nanoseconds;

#define AT(member) offsetof(Statistics, member)

// clang-format off
inline constexpr FigureFamily kFamilies[] = {
    {"phase", "What the service does: 0 starts, 1 fills the tables, 2 runs, 3 stops.", kGauge, kNone, AT(phase)},
    {"phase_since", "When that began.", kMoment, kTime, AT(phaseSince)},
    {"started", "When the service started.", kMoment, kTime, AT(started)},
    {"types_filled", "Object types whose rows are there, or on their way.", kGauge, kNone, AT(typesFilled)},
    {"types", "Object types in all.", kGauge, kNone, AT(types)},
    {"detached", "When the Data Manager went, if it hasn't come back.", kMoment, kTime, AT(detachedSince)},
    {"bus_connected", "1 while there is a connection for change signals.", kGauge, kNone, AT(busConnected)},
    {"signals_enabled", "1 once readiness is published and signals go out.", kGauge, kNone, AT(signalsEnabled)},
    {"ready_refused", "1 while the configuration manager refuses the ready attribute.", kGauge, kNone, AT(readyRefused)},
    {"events_received", "Events that came, by type.", kCounter, kNone, AT(received), {"type", kEvents}},
    {"events_dropped", "Events that were dropped, by cause.", kCounter, kNone, AT(dropped), {"cause", kCauses}},
    {"last_event", "When the last event came.", kMoment, kTime, AT(lastEvent)},
    {"queue_length", "Events that wait for a worker.", kGauge, kNone, AT(queueLength)},
    {"queue_most", "The most events that ever waited.", kGauge, kNone, AT(queueMost)},
    {"queue_oldest", "Since when the oldest of them has waited.", kMoment, kTime, AT(queueOldest)},
    {"workers_admitted", "Workers that are let in to work.", kGauge, kNone, AT(workersAdmitted)},
    {"worker_busy", "Since when a worker has been at its event.", kMoment, kTime, AT(workerBusySince), {"worker", kWorkers}},
    {"objects_arrived", "Objects to be looked at, by the road they came on.", kCounter, kNone, AT(arrived), {"road", kRoads}},
    {"objects", "What became of them.", kCounter, kNone, AT(fates), {"road", kRoads}, {"fate", kFates}},
    {"failed_kept", "Operations put into the queue of failed ones.", kCounter, kNone, AT(failedKept)},
    {"failed_taken", "Operations taken from it, to be tried again.", kCounter, kNone, AT(failedTaken)},
    {"failed_waiting", "Operations in it.", kGauge, kNone, AT(failedWaiting)},
    {"signals", "Change signals, by what became of them.", kCounter, kNone, AT(signals), {"end", kSignalEnds}},
    {"telemetry_records", "Telemetry records, by what became of them.", kCounter, kNone, AT(records), {"end", kRecordEnds}},
    {"database_refusals", "Statements that found the database busy or locked, for longer than SQLite waits.", kCounter, kNone, AT(refused), {"status", kBusy}},
    {"database_busy", "Time slept between such attempts.", kCounter, kTime, AT(busyNanoseconds)},
    {"passes", "Passes over what nobody announces.", kCounter, kNone, AT(passes)},
    {"pass_began", "When the last one began.", kMoment, kTime, AT(passBegan)},
    {"pass_length", "How long the last whole one took.", kGauge, kTime, AT(passNanoseconds)},
    {"event_to_commit", "From an event's coming to its row's commit.", kHistogram, kTime, AT(toCommit)},
    {"event_to_signal", "From an event's coming to its signal's sending.", kHistogram, kTime, AT(toSignal)},
    {"table_rows", "Rows of a table.", kGauge, kNone, AT(tableRows), {"table", kTables}},
    {"table_changes", "Rows inserted, changed and deleted.", kCounter, kNone, AT(tableChanges), {"table", kTables}},
    {"table_changed", "When a row of the table changed last.", kMoment, kTime, AT(tableChanged), {"table", kTables}},
};
// clang-format on

#undef AT

} // namespace figures

inline constexpr auto kFamilyCount =
    static_cast<uint32_t>(std::size(figures::kFamilies));
inline constexpr uint32_t kSeriesCount = []
{
    size_t count = 0;
    for (const FigureFamily &family : figures::kFamilies)
    {
        count += family.SeriesCount();
    }
    return static_cast<uint32_t>(count);
}();

// Every cell has a name.
static_assert(
    []
    {
        size_t cells = 0;
        for (const FigureFamily &family : figures::kFamilies)
        {
            cells +=
                family.SeriesCount() *
                (family.kind == FigureKind::Histogram ? kHistogramCells : 1);
        }
        return cells == sizeof(Statistics) / sizeof(Cell);
    }());

// Fills the two parts of the file, kFamilyCount and kSeriesCount entries.
void DescribeFamilies(StatisticsFamily *pFamilies, StatisticsSeries *pSeries);

} // namespace qdb
