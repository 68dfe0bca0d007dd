// The objects and attributes of a chaos run, and which of their rows must be
// exact. Slots come and go and come back, always under the same OID, key and
// parent.
//
// Time is counted in epochs: an epoch begins and ends with a service that has
// worked off everything it was told. Of an object that was told of alone in its
// epoch, and met no fault, the row is exact behind it, and stays so. Everything
// else is in doubt until the object is taken away and told of, and is then made
// anew in an epoch of its own.
#pragma once

#include "tests/chaos/kinds.h"
#include "tools/audit/content.h"

#include <string>
#include <vector>

namespace qdb::chaos
{

// What the service was told of an object in this epoch.
enum class Told
{
    Nothing,
    Create,
    Change, // any number of them
    Destroy,
    Several, // which may end in any order
};

struct Epoch
{
    bool passRan = false; // a pass was under way in it, or one of its reloads
    int heldMs = 0;       // another process kept the database so long
    std::string fault;    // the platform call that failed now and then
    bool cleared = false; // everything, or all attributes, without a word
    bool flooded = false; // the queue may have had no room for the bus
    bool gaveUp = false;  // the service says that it didn't do everything
};

struct Slot
{
    const Kind *kind;
    uint32_t oid;
    std::string key; // of an attribute
    bool alive = true;

    bool isExact = true;
    bool isDoubted = false; // in this epoch
    Told told = Told::Nothing;
    size_t length = 0; // of the array

    std::vector<std::string> journal = {};

    bool IsAttribute() const
    {
        return kind->interface != nullptr;
    }
    bool Is(unsigned traits) const; // all of them
    int64_t Stored() const
    {
        return audit::StoredOid(oid);
    }
    // The OID of the parent; 0: the root, or a group.
    uint32_t Parent() const;
    // An unfinished command for the object, or for the attribute.
    std::string Command(const char *forObject, const char *forAttribute) const;
};

class World
{
  public:
    World(); // everything is there, and stored

    std::vector<Slot> slots;
    Epoch epoch;
    size_t epochs = 0; // that are over

    // A line of the slot's journal.
    void Note(Slot &slot, const std::string &line);

    void Tell(Slot &slot, Told what);
    void Doubt(Slot &slot);

    // The slot came or went: rows of its children that are there tell of it as
    // it was when they were made.
    void DoubtChildren(const Slot &slot);

    void EndEpoch();

    const Slot *Find(int64_t storedOid) const; // or NULL

    // The last lines of an object's journal.
    std::string PrintJournal(int64_t storedOid) const;

    // The command that makes the slot's object or attribute with new values,
    // and the JSON file that makes all.
    std::string Creation(Slot &slot);
    std::string Scenario();

    // "name": value, with a value that the column never had, or not lately.
    std::string Fresh(const char *column);

    // "property": [...] with so many elements, none of which the array had
    // lately.
    std::string FreshArray(Slot &slot, size_t length);

  private:
    std::string Values(Slot &slot);

    int mark_ = 0;
    bool begun_ = false;
};

// A column's name in kKinds without its mark, and an array's without its field.
std::string NameOf(const char *column);

} // namespace qdb::chaos
