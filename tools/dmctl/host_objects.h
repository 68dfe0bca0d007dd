// The objects that stand for this machine.
//
// A collector reads what the kernel tells about one kind of thing and adds an
// object per thing. Objects keep their OID as long as the program runs, also
// when others of their kind come and go.
#pragma once

#include "objects/schema/table.h"
#include "tools/dmctl/host_files.h"
#include "tools/dmctl/json.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qdb
{

// Each kind owns the 64 Ki OIDs from kFirstHostOid + kind * 0x10000.
enum class HostKind : uint8_t
{
    System,
    Processor,
    Pci,
    Interface,
    Counters,
    Usage,
    Disk,
    Temperature,
};

inline constexpr uint32_t kFirstHostOid = 0x00700000;
inline constexpr uint32_t kBehindHostOids = 0x00780000;

// Column values for an object of one table. A value that is not there is left
// out; one that does not fit is cut to what its column holds.
class HostValues
{
  public:
    explicit HostValues(const Table &table);

    void Text(const char *column, const std::optional<std::string> &text);
    void Number(const char *column, std::optional<int64_t> number);
    void Array(const char *column, Json array);

    // The values so far; the object is empty afterwards.
    Json Take();

  private:
    const Column &Find(const char *name) const;

    const Table &mTable;
    Json mValues;
};

struct HostObject
{
    uint16_t type;
    uint32_t oid;
    uint32_t parent;
    std::string key;
    Json values;
};

// One look at this machine: where collectors read, and what they have found.
class HostView
{
  public:
    explicit HostView(const HostFiles &files);

    const HostFiles &Files() const;

    // Forgets the objects of the last look, but not their OIDs.
    void Begin();

    // Adds the object for the thing called `name`, a child of the system's
    // object unless it is that itself. `fqdd` names the object in its key.
    void Add(HostKind kind, const std::string &name, uint16_t type,
             const std::string &fqdd, HostValues &values);

    const std::vector<HostObject> &Objects() const;

  private:
    uint32_t OidOf(HostKind kind, const std::string &name);

    const HostFiles &mFiles;
    std::map<std::pair<HostKind, std::string>, uint32_t> mOids;
    std::map<HostKind, uint32_t> mUsed;
    std::vector<HostObject> mObjects;
};

// "91||Host.Embedded.1"
std::string HostKey(uint16_t type, const std::string &fqdd);

class UsageHistory;

void CollectSystem(HostView &view, time_t now);
void CollectProcessors(HostView &view);
void CollectPciDevices(HostView &view);
void CollectInterfaces(HostView &view);
void CollectDisks(HostView &view);
void CollectTemperatures(HostView &view);

// Adds a sample of the processors' load and the memory's use to `history`, and
// both as objects.
void CollectUsage(HostView &view, UsageHistory &history, time_t now);

} // namespace qdb
