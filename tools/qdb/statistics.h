// The statistics file of a service, read as a whole (core/statistics_file.h).
#pragma once

#include "core/statistics_file.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qdb::tool
{

// A series: its labels, such as road="bus",fate="created", and its cells.
struct Series
{
    std::string labels;
    std::vector<uint64_t> cells;

    // The one cell, or how many a histogram has counted.
    uint64_t Count() const;

    // The value of a label; "" without it.
    std::string_view Label(std::string_view name) const;
};

struct Family
{
    std::string name;
    std::string help;
    FigureKind kind;
    FigureUnit unit;
    std::vector<Series> series;
};

// One look at the file.
struct Statistics
{
    bool isRunning = false; // somebody holds the file's lock
    uint32_t pid = 0;       // who made it
    uint64_t now = 0;       // CLOCK_MONOTONIC at the look
    std::vector<Family> families;

    // A family by its name; NULL: the writer doesn't know it.
    const Family *Find(std::string_view name) const;

    // The first cell of the first series whose labels hold `label`, or of the
    // first one of all; 0 without one.
    uint64_t Value(std::string_view name, std::string_view label = {}) const;

    // The sum over all series whose labels hold `label`, and not `butNot`
    // unless that is empty.
    uint64_t Sum(std::string_view name, std::string_view label = {},
                 std::string_view butNot = {}) const;
};

// Below what the share of all that a histogram's cells have counted is, in
// nanoseconds: the upper end of a bucket.
uint64_t PercentileOf(const std::vector<uint64_t> &cells, double share);

// Nothing when there is no file. Throws std::runtime_error, with the reason,
// for one that can't be read or isn't what the format says.
std::optional<Statistics> ReadStatistics(const std::string &path);

// The books: for each road on which arrivals and fates differ by now, such as
// "bus: 12 arrived, 11 accounted for"; none at a quiet moment.
std::vector<std::string> Unbalanced(const Statistics &statistics);

} // namespace qdb::tool
