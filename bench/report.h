// What the bench found: tables of figures, printed in one way or the other.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace qdb::bench
{

// A column whose name is "<=" or ">=" holds the target of the one before it.
struct Figures
{
    struct Row
    {
        std::string name;
        std::vector<double> values; // NAN: none
    };

    const char *name;
    std::vector<const char *> columns;
    std::vector<Row> rows;
};

// One side's part of a measurement, in seconds; of the service alone the
// processor times that aren't counted: the stand-in's own threads, and its
// answers to calls about objects.
struct Sample
{
    double elapsed;
    double processor;
    double events;
    double answers;
};

// The same operations on both sides, one right after the other.
struct Slice
{
    uint32_t operations;
    Sample service;
    Sample plain;
};

enum WorkloadIndex : size_t
{
    kPopulation,
    kCreate,
    kRefreshOneType,
    kRefreshTwentyTypes,
    kRefreshSame,
    kDelete,
    kDestroyBunch,
    kWorkloadCount,
};
using Slices = std::array<std::vector<Slice>, kWorkloadCount>;

// Medians over the slices; ratios slice by slice, since a change of the
// machine's load meets both sides.
Figures FiguresOf(const Slices &slices);

// For people, and as one JSON object.
void PrintText(const std::vector<Figures> &tables);
void PrintJson(const std::vector<Figures> &tables);

} // namespace qdb::bench
