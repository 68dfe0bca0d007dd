// Compares what the database mirrors with the mirror: every object with its
// row, column by column, its array elements, its mapping and its parent links.
//
// The moment decides: content and snapshot that were taken while the system
// was at work differ wherever a change is on its way. Looks() asks again until
// only what lasts is left.
//
// The database may differ from the objects and be right by the service's own
// rules. Such differences are listed all the same, under kinds of their own
// where they have one, and the reader decides:
// - A creation column (the parent's key, RootObjectKey) is written when the
//   row is made and never again; it differs once the parent has come or gone,
//   or the field has changed.
// - An extra element past the end stays when an array becomes shorter.
// - A parent that is created after its child gets no link.
// - A row whose texts aren't valid UTF-8 can't be read by the service, and so
//   is neither updated nor removed any more.
// - A row of raw data keeps all its columns while isRawData is 1. Its
//   CurrentValue, which comes from a file, is not compared.
// What isn't a difference: a link to a parent that the object names and that
// has gone; no parent's key, or the next parent's, where the first one can't be
// had.
//
// An object that can't be stored as it stands (an offset leads out of it) has
// no row if it was so from the start, and keeps its last good one otherwise.
// Nothing that the database holds of it is judged; it is listed apart.
#pragma once

#include "tools/audit/content.h"
#include "tools/audit/snapshot.h"

#include <compare>
#include <functional>
#include <string>
#include <vector>

namespace qdb::audit
{

enum class Kind
{
    MissingMapping,
    ExtraMapping,
    MappingType,
    MissingRow,
    ExtraRow, // also one in the other table of a type that has two
    Repeated, // several rows where the OID, or key, is to be unique
    Column,
    CreationColumn,
    MissingElement,
    ExtraElement,
    Element,
    MissingLink,
    ExtraLink,
};

struct Difference
{
    int64_t oid; // as stored
    Kind kind;
    uint32_t type; // 0: neither an object nor a mapping tells it
    std::string table;
    std::string column;   // "": the whole row; of an array: the property
    int64_t index;        // of the element; -1: no array
    std::string field;    // the side table's column; "": the whole element
    std::string expected; // "nothing" where there should be nothing
    std::string found;

    auto operator<=>(const Difference &) const = default;
};

// An object that can't be stored, and the first column at fault.
struct Unstorable
{
    int64_t oid;
    uint32_t type;
    std::string table;
    std::string column;

    auto operator<=>(const Unstorable &) const = default;
};

struct Report
{
    size_t compared = 0; // objects that are to have a row
    std::vector<Difference> differences;
    std::vector<Unstorable> unstorable;
}; // both sorted

Report Compare(const Content &content, const Snapshot &snapshot);

// Compares what `fetch` gives with what the database then holds, `count` times
// at most or until nothing differs, with `pause`, given the number of the look
// that is over, in between. Only a difference found in every look, in the same
// place of the same row, whatever the values, is reported, as the last look saw
// it. Throws what `fetch` throws, and Unreadable.
Report Looks(int count, const std::function<Content()> &fetch,
             sqlite3 *database, const std::function<void(int)> &pause);

// One line without its end, such as
//   0x000000E1 (0xE1) column TblMemoryInfo.Rank: expected 2, found 1
std::string Print(const Difference &difference);
std::string Print(const Unstorable &object);

// "0 differences in 5000 objects", with ", 2 not storable" where there are any.
std::string Summary(const Report &report);

} // namespace qdb::audit
