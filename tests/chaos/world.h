// The objects and attributes that a chaos run plays with: slots that come and
// go and come back, always under the same OID, key and parent.
//
// To add a type: a line in kKinds. What passes of the service do for a type by
// themselves is said there, by hand, so that the service's own tables aren't
// asked whether they are right.
#pragma once

#include "tools/audit/content.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qdb::chaos
{

enum Trait : unsigned
{
    kKept = 1 << 0,     // a refresh that finds no row waits in the fail queue
    kCounted = 1 << 1,  // passes compare counts, and fill the table anew
    kMade = 1 << 2,     // passes make a missing row
    kReloaded = 1 << 3, // a status change starts the passes' reload, no more
    kRestored = 1 << 4, // comes back at once after a detach
    kRaw = 1 << 5,      // gets raw data, too
    kFixed = 1 << 6,    // is never removed: others hang on it
};

struct Kind
{
    uint16_t type;
    const char *interface; // of an attribute; NULL: an object
    uint32_t first;        // OIDs are first, first + 1, ...
    uint32_t count;
    uint32_t parent;        // the first of `parentCount` OIDs
    uint32_t parentCount;   // 0: the root
    const char *values;     // that never change; {n} is the slot's number
    const char *columns[2]; // that change; '#' marks a number
    const char *array;      // of numbers, or of one field behind a ':'
    const char *watched;    // column that passes compare; "*": all
    unsigned traits;
};

struct Slot
{
    const Kind *kind;
    uint32_t oid;
    std::string key; // of an attribute
    bool alive = true;

    bool IsAttribute() const
    {
        return kind->interface != nullptr;
    }
    bool Has(unsigned traits) const
    {
        return (kind->traits & traits) != 0;
    }
    int64_t Stored() const
    {
        return audit::StoredOid(oid);
    }
    // An unfinished command for the object, or for the attribute.
    std::string Command(const char *forObject, const char *forAttribute) const;
    // The OID of the parent; 0: the root, or a group.
    uint32_t Parent() const;
    bool Watches(const std::string &column) const;
};

class World
{
  public:
    World(); // everything is there

    std::vector<Slot> slots;

    // The command that makes the slot's object or attribute with new values,
    // and the JSON file that makes all.
    std::string Creation(const Slot &slot);
    std::string Scenario();

    // "name": value, with a value that the column never had, or not lately.
    std::string Fresh(const char *column);

    // "property": [...] with so many elements.
    std::string FreshArray(const Slot &slot, size_t length);

  private:
    std::string Values(const Slot &slot);

    int mark_ = 0;
    bool begun_ = false;
};

// A column's name in kKinds without its mark.
std::string NameOf(const char *column);

// How long the array is when an object appears.
inline constexpr size_t kFirstLength = 3;

} // namespace qdb::chaos
