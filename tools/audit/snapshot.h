// Everything that the database holds at one moment, read as any of its
// consumers would.
#pragma once

#include "objects/schema/table.h"
#include "tools/audit/value.h"

#include <cstdint>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace qdb::audit
{

// The database can't be read; what() says why.
class Unreadable : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

struct Row
{
    std::vector<Value> columns; // of the column list, in its order
    Value tag;                  // SingleRecordEtag
    Value isRaw;                // NULL in tables without isRawData
};

struct ElementPlace
{
    int64_t oid;
    std::string property;
    int64_t index;

    auto operator<=>(const ElementPlace &) const = default;
};

// OIDs are as stored, sign and all. Of rows that share a key all but the first
// are listed as repeated.
struct Snapshot
{
    std::map<int64_t, Value> mapping;            // OID to type
    std::set<std::pair<int64_t, int64_t>> links; // OID and parent's OID
    std::map<const Table *, std::map<int64_t, Row>> rows;
    std::map<const SideTable *, std::map<ElementPlace, std::vector<Value>>>
        elements;
    std::vector<std::pair<int64_t, std::string>> repeated; // OID and table
};

// Reads all in one read transaction, as fast as it can: the service waits for
// it with its next change. Throws Unreadable.
Snapshot ReadSnapshot(sqlite3 *database);

} // namespace qdb::audit
