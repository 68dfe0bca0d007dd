// What the service counts of itself, in a file beside the database that anybody
// may map (core/statistics_file.h).
//
// Written with relaxed atomics: no lock, no system call, no order between two
// figures. Without the file the figures are kept all the same, where nobody
// sees them. A build with -Dstatistics=false counts nothing.
#pragma once

#include "core/statistics_file.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace qdb
{

using Cell = std::atomic<uint64_t>;
static_assert(sizeof(Cell) == sizeof(uint64_t) && Cell::is_always_lock_free);

#ifdef QDB_NO_STATISTICS
inline constexpr bool kCounts = false;
#else
inline constexpr bool kCounts = true;
#endif

// What the service is doing; the reader tells the rest from other figures.
enum class Phase : uint64_t
{
    Starting,
    Filling,
    Running,
    Stopping,
};

// How an event came.
enum class EventKind : size_t
{
    Create,
    Refresh,
    Destroy,
    StatusChange,
    RawData,
    Bus,
    Detach,
    Other,
    Count_,
};

enum class DropCause : size_t
{
    Malformed,
    NoMemory,
    OverBound,
    UnknownType,
    Count_,
};

// How an object came to be looked at.
enum class Road : size_t
{
    DataManager,
    Bus,
    Population,
    Reload,
    Drain,
    Count_,
};

// What became of an object that was looked at. The later ones outweigh the
// earlier ones where it stands in several rows.
enum class Fate : size_t
{
    Ignored,   // nothing was to be done with it
    Legacy,    // an attribute, which the Data Manager has no say in
    NoRow,     // there was no row to refresh or to remove
    PassedOn,  // put behind the queue, or left to a reload
    Unchanged, // the row was as it should be
    Changed,
    Created,
    Removed,
    Incomplete, // written, but without a parent, a link or an array
    Stopped,    // the service ended first
    Kept,       // in the queue of failed operations
    Vanished,
    Constraint,
    Invalid,
    Busy,
    NoMemory,
    Failed, // for another reason; the log has it
    Count_,
};

enum class SignalEnd : size_t
{
    Sent,
    Failed,
    TooLong,
    NotReady,
    NoBus,
    Count_,
};

enum class RecordEnd : size_t
{
    Written,
    NoReader,
    Full,
    Failed,
    Count_,
};

enum class BusyStatus : size_t
{
    Busy,
    Locked,
    Count_,
};

template <typename Enum>
inline constexpr size_t kCountOf = static_cast<size_t>(Enum::Count_);

inline constexpr size_t kCountedTables = 111;
inline constexpr size_t kStatisticsWorkers = 10;

using Histogram = std::array<Cell, kHistogramCells>;

// The families in statistics_families.h give the cells their names.
struct Statistics
{
    Cell phase;
    Cell phaseSince;
    Cell started;
    Cell typesFilled;
    Cell types;
    Cell detachedSince; // 0: the Data Manager is there
    Cell busConnected;
    Cell signalsEnabled;
    Cell readyRefused;

    std::array<Cell, kCountOf<EventKind>> received;
    std::array<Cell, kCountOf<DropCause>> dropped;
    Cell lastEvent;
    Cell queueLength;
    Cell queueMost;
    Cell queueOldest;
    Cell workersAdmitted;
    std::array<Cell, kStatisticsWorkers> workerBusySince;

    std::array<Cell, kCountOf<Road>> arrived;
    std::array<std::array<Cell, kCountOf<Fate>>, kCountOf<Road>> fates;
    Cell failedKept;
    Cell failedTaken;
    Cell failedWaiting;

    std::array<Cell, kCountOf<SignalEnd>> signals;
    std::array<Cell, kCountOf<RecordEnd>> records;
    std::array<Cell, kCountOf<BusyStatus>> refused;
    Cell busyNanoseconds;

    Cell passes;
    Cell passBegan;
    Cell passNanoseconds;

    Histogram toCommit;
    Histogram toSignal;

    std::array<Cell, kCountedTables> tableRows;
    std::array<Cell, kCountedTables> tableChanges;
    std::array<Cell, kCountedTables> tableChanged;
};

// Set by OpenStatistics.
extern std::atomic<Statistics *> gStatistics;

inline Statistics &Figures()
{
    return *gStatistics.load(std::memory_order_acquire);
}

inline void Count(Cell &cell, uint64_t more = 1)
{
    if constexpr (kCounts)
    {
        cell.fetch_add(more, std::memory_order_relaxed);
    }
}

// Counts one in the cell of an enumerator.
template <typename Cells, typename Enum>
void CountOne(Cells &cells, Enum which)
{
    Count(cells[static_cast<size_t>(which)]);
}

inline void Uncount(Cell &cell)
{
    if constexpr (kCounts)
    {
        cell.fetch_sub(1, std::memory_order_relaxed);
    }
}

inline void Put(Cell &cell, uint64_t value)
{
    if constexpr (kCounts)
    {
        cell.store(value, std::memory_order_relaxed);
    }
}

// A moment for a cell, 0 in a build that counts nothing.
uint64_t MomentNow();

void EnterPhase(Phase phase);

// An event of the kind has come.
void CountEvent(EventKind kind);

// Adds what has passed since a moment; nothing for 0.
void CountSince(Histogram &histogram, uint64_t moment);

// The moment at which the event came that the calling thread carries out; 0:
// none.
extern constinit thread_local uint64_t tEventCame;

// The statement that the calling thread steps inserts (1), deletes (-1) or
// changes (0) a row. Tables that aren't of the catalogue are left out.
void NoteRowChange(const char *table, int rowsMore);

// It has ended: counts what was noted, if that has come to be.
void CountRowChanges(bool succeeded);

// The tables of the catalogue, each once, in the order of their names, which
// end in a NUL.
std::span<const std::string_view> CountedTables();

// How many rows a table had before anybody counted.
void PutRows(const char *table, uint64_t rows);

// Makes the file anew, whatever is there under its name, and counts in it from
// here on. Returns 0 or what failed, as errno has it; counting goes on in
// memory then. Once, before anything is counted.
int OpenStatistics(const char *path);

} // namespace qdb
