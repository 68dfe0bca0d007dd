// What follows from the workloads' slices.
#pragma once

#include "bench/report.h"

#include <array>
#include <cstdint>
#include <vector>

namespace qdb::bench
{

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

} // namespace qdb::bench
