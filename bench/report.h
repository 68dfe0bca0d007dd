// What the bench found, and how it tells it.
#pragma once

#include "bench/side.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace qdb::bench
{

struct Settings
{
    uint32_t objects = 5000;
    uint32_t subscribers = 1;
    uint64_t changes = 0; // to be made by one service before its heap counts
    bool quick = false;
};

enum SideIndex : size_t
{
    kService,
    kPlain,
    kBest,
    kSideCount,
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

// One side's part of a measurement, in seconds; of the service alone the times
// that aren't counted.
struct Sample
{
    double elapsed;
    double processor;
    double eventThread;
    double store;
};

// The same operations on all sides, one right after the other.
struct Slice
{
    uint32_t operations;
    std::array<Sample, kSideCount> sides;
};

// From event to signal, in microseconds.
struct Latency
{
    double p50;
    double p99;
    double p999;
    double load; // average of the minute before the end
};

struct Idle
{
    double seconds;
    double processor;
    double store;
    double wakeUps; // processor time of the wake-ups alone
};

struct Report
{
    std::array<std::vector<Slice>, kWorkloadCount> slices;
    std::vector<Latency> latencies;
    Idle idle;
    StartUp startUp;   // of the last service
    double population; // seconds of that start
    Memory changed;    // of that service, when the sets had gone again
    uint64_t changes;  // signals that it had sent by then
    double loadBefore; // of the minute before the measuring and its end
    double loadAfter;
};

void PrintTable(const Report &report, const Settings &settings);
void PrintJson(const Report &report, const Settings &settings);

} // namespace qdb::bench
