// What the bench found, and how it tells it.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace qdb::bench
{

struct Settings
{
    std::string service; // the program
    uint32_t objects = 5000;
    uint32_t subscribers = 1;
    uint64_t changes = 0; // to be made by one service before its heap counts
    bool quick = false;
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

// From event to signal, in microseconds.
struct Latency
{
    double p50;
    double p99;
    double p999;
    double load; // average of the minute before the end
};

struct Memory
{
    int64_t heap;     // bytes in use
    int64_t resident; // bytes
};

// How the service came up.
struct StartUp
{
    double ready;      // seconds from its start to readiness
    Memory beforeOpen; // before the database is opened
    Memory populated;  // when it is ready
};

enum SlowIndex : size_t
{
    kSlowCreate,
    kSlowRefresh,
    kSlowDelete,
    kSlowCount,
};

// The steps on a platform that takes its time.
struct SlowRun
{
    int delay;    // of each call about an object, in microseconds
    bool hanging; // one call hangs beside them
    std::array<double, kSlowCount> perSecond;
    std::array<double, kSlowCount> calls; // of one operation
};

struct Report
{
    std::array<std::vector<Slice>, kWorkloadCount> slices;
    std::vector<Latency> latencies;
    Sample idle;
    StartUp startUp;           // of the last service
    Memory changed;            // of it, when the sets had gone again
    uint64_t changes;          // signals that it had sent by then
    std::vector<SlowRun> slow; // the first without delay or hanging call
    double loadBefore;         // of the minute before the measuring and its end
    double loadAfter;
};

// Prints it for people, or as one JSON object.
void Print(const Report &report, const Settings &settings, bool asJson);

} // namespace qdb::bench
