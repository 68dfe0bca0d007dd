// The objects that stand for this machine.
//
// A system, its processors, PCI devices, network interfaces with their
// counters, disks and temperatures, and how busy it is. Objects keep their OID
// as long as the program runs, also when others of their kind come and go.
#pragma once

#include "tools/dmctl/host_files.h"
#include "tools/dmctl/host_kinds.h"
#include "tools/dmctl/host_values.h"

#include <ctime>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qdb
{

inline constexpr uint32_t kFirstHostOid = 0x00700000;
inline constexpr uint32_t kBehindHostOids = 0x00780000;

struct HostObject
{
    uint16_t type;
    uint32_t oid;
    uint32_t parent;
    std::string key;
    Json values;
};

// How busy something has been over the last hour.
class HostUsage
{
  public:
    void Add(time_t now, int64_t percent);
    void Put(HostValues &values) const;

  private:
    std::deque<std::pair<time_t, int64_t>> mSamples; // oldest first
};

class Host
{
  public:
    // `root` stands before every path; empty for this machine.
    explicit Host(std::string root = "");

    // The machine's objects as they are now.
    std::vector<HostObject> Look(time_t now);

  private:
    void AddSystem(time_t now);
    void AddProcessors();
    void AddUsage(time_t now);
    void AddFound(const HostKind &kind);
    void AddTemperatures();

    // Adds the object for the thing called `name`, with the fields of its kind
    // below `path` and the further values; a child of the system's object
    // unless it is that itself.
    void Add(const HostKind &kind, const std::string &name,
             const std::string &path, HostValues values);

    HostFiles mFiles;
    std::vector<HostObject> mObjects; // of the present look
    std::map<std::pair<uint16_t, std::string>, uint32_t> mOids; // by type, name

    HostUsage mProcessors;
    HostUsage mMemory;
    // The last counters of processor time, to measure the load in between.
    int64_t mBusyTicks = 0;
    int64_t mAllTicks = 0;
};

} // namespace qdb
