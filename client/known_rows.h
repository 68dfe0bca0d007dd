// What was told of the rows of a table: for each a few numbers, no contents.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qdb::client
{

struct KnownRow
{
    int64_t oid;
    uint64_t tag;    // of the state that was told
    uint32_t second; // in which that was written
    bool isSettled;  // and that was over when it was read
    bool isAhead;    // its signal may still come
};

// In the order of their OIDs.
class KnownRows
{
  public:
    KnownRow *Find(int64_t oid); // NULL: none

    // Adds a row that isn't there.
    void Add(const KnownRow &row);
    void Remove(int64_t oid);

    const std::vector<KnownRow> &All() const
    {
        return rows_;
    }

  private:
    std::vector<KnownRow>::iterator At(int64_t oid);

    std::vector<KnownRow> rows_;
};

} // namespace qdb::client
