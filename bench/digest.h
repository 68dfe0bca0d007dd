// Digests that don't depend on order: of what was sent, and of what stands in
// the tables. Equal work gives equal digests, whoever did it and when.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qdb::bench
{

// Of one piece of text, following `seed`.
uint64_t Digest(std::string_view text, uint64_t seed);

// Of a change signal's text, without the tags in it, which tell the time. Add
// them up for many signals.
uint64_t SignalDigest(std::string_view member, std::string_view text);

// All rows of a database but those of TblEtag, without their tags.
struct RowsDigest
{
    uint64_t digest;
    uint64_t objects; // rows of the object tables
    uint64_t mapped;  // rows of ActiveOIDMapping

    bool operator==(const RowsDigest &) const = default;
};

// Reads the database by a connection of its own. Throws std::runtime_error when
// it can't.
RowsDigest DigestRows(const std::string &database);

} // namespace qdb::bench
