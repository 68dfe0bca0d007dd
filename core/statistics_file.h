// The format of the statistics file, for the service and whoever reads it.
//
// A header, the families of figures, their series, and the cells that the
// series point to, all in the byte order of the machine. A cell is 64 bits wide
// and written on its own: two cells may be of different moments. The names
// travel with the figures, so that a reader needs to know none beforehand, and
// sizes of entries travel with the header, so that later versions may append
// members that earlier readers skip.
//
// The file gets its name when it is complete. For its life the service holds a
// lock on it (fcntl, the first byte), which tells one that runs from what it
// left behind.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

namespace qdb
{

inline constexpr auto kStatisticsMagic =
    std::bit_cast<uint64_t>(std::to_array("QDBSTAT"));
inline constexpr uint32_t kStatisticsVersion = 1;

// What is at `at` is `count` entries of `size` bytes.
struct StatisticsPart
{
    uint32_t at;
    uint32_t count;
    uint32_t size;
};

struct StatisticsHeader
{
    uint64_t magic;
    uint32_t version;
    uint32_t pid;
    StatisticsPart families;
    StatisticsPart series;
    StatisticsPart cells;
    uint32_t unused;
};

enum class FigureKind : uint32_t
{
    Counter = 1, // only grows
    Gauge = 2,
    Moment = 3, // nanoseconds of CLOCK_MONOTONIC; 0: never
    // kHistogramCells cells: how many took less than 2^i microseconds more than
    // those of the cell before, the last one being the rest; then the sum of
    // all in nanoseconds.
    Histogram = 4,
};

enum class FigureUnit : uint32_t
{
    None = 0,
    Nanoseconds = 1,
};

inline constexpr uint32_t kHistogramBuckets = 26; // the last but one: 16.8 s
inline constexpr uint32_t kHistogramCells = kHistogramBuckets + 1;

// Texts end in a NUL.
struct StatisticsFamily
{
    char name[40];
    char help[120];
    FigureKind kind;
    FigureUnit unit;
    uint32_t firstSeries;
    uint32_t seriesCount;
};

struct StatisticsSeries
{
    char labels[72]; // such as road="bus",fate="created"; may be empty
    uint32_t firstCell;
    uint32_t cellCount;
};

} // namespace qdb
