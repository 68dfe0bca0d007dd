// What one line of the catalogue of object types says: which objects go into
// which table, and what is special about them.
#pragma once

#include "objects/schema/table.h"

#include <cstdint>

namespace qdb
{

// What a type has that others don't, as bits.
enum class Trait : uint16_t
{
    None = 0,

    // An attribute of the configuration manager, never the Data Manager's.
    Attribute = 1 << 0,

    // Of the attributes, the one whose values may stand in a file; a refresh
    // leaves those rows alone.
    RawValues = 1 << 1,

    // A change is announced with the old values, too.
    PreviousValues = 1 << 2,

    // What the database refused is done again later (queues/fail_queue.h): a
    // create, a refresh that found no row, a refresh.
    RetriesCreate = 1 << 3,
    RetriesMissedRefresh = 1 << 4,
    RetriesRefresh = 1 << 5,

    // A create that meets the delete of its OID pauses before it tries again;
    // the others try again at once, as long as there is no backlog of events.
    // With one, only those go on waiting that keep on.
    PausesForDelete = 1 << 6,
    KeepsOnForDelete = 1 << 7,

    // A refresh asks for the object's parents anew.
    MovesAmongParents = 1 << 8,

    // Its objects have release dates and hashes that are never stored.
    WithholdsReleases = 1 << 9,
};

constexpr Trait operator|(Trait a, Trait b)
{
    return static_cast<Trait>(static_cast<unsigned>(a) |
                              static_cast<unsigned>(b));
}

// Which objects of the type the line is about; see objects/predicates.h.
enum class Match : uint8_t
{
    Every,
    NvmeDrive,
    SasSataDrive,
    RaidSlot,
    OtherSlot,
    SetupEnum, // every one, once its dependency list's offset is repaired
};

// The reload that reads objects again which nobody announces.
enum class Reload : uint8_t
{
    None,
    Memory,
    HostPower, // by the reload of the memory, at its passes alone
    Fru,
    Device,
};

struct ObjTypeRow
{
    uint16_t objType;
    const char *suffix; // of the handlers' names in log lines
    const Table *table;
    Trait traits = Trait::None;
    Match match = Match::Every;
    Reload reload = Reload::None;

    constexpr bool Has(Trait trait) const
    {
        return (static_cast<unsigned>(traits) & static_cast<unsigned>(trait)) !=
               0;
    }
};

} // namespace qdb
