// The objects and attributes of a chaos run, and the journal of what was done
// to each and what of it the service was told. Slots come and go and come back,
// always under the same OID, key and parent.
//
// Time is counted in epochs: an epoch begins and ends with a service that has
// worked off everything it was told. What is told of an object alone in its
// epoch has its whole effect; what is told together has it in no order.
#pragma once

#include "tests/chaos/kinds.h"
#include "tools/audit/content.h"

#include <string>
#include <vector>

namespace qdb::chaos
{

enum class What
{
    // To the object, at its owner.
    Appear,
    Change, // `column`; `length`: the new one of an array
    Disappear,
    // To the service.
    ToldCreate,
    ToldDirty,
    ToldStatus,
    ToldDestroy,
    ToldRaw,
    Cleared,  // everything, or all attributes
    Restored, // by the service itself, after it has cleared
};

struct Entry
{
    size_t epoch;
    What what;
    std::string column;
    size_t length;

    bool IsTold() const
    {
        return what >= What::ToldCreate && what <= What::Cleared;
    }
};

struct Epoch
{
    bool passRan = false; // a pass was under way in it, or one of its reloads
    int heldMs = 0;       // another process kept the database so long
    std::string fault;    // the platform call that failed now and then
    bool cleared = false; // everything, or all attributes, without a word
};

struct Slot
{
    const Kind *kind;
    uint32_t oid;
    std::string key; // of an attribute
    bool alive = true;
    std::vector<Entry> journal = {};

    bool IsAttribute() const
    {
        return kind->interface != nullptr;
    }
    bool Has(unsigned traits) const; // any of them
    bool Is(unsigned traits) const;  // all of them
    unsigned Traits() const;
    int64_t Stored() const
    {
        return audit::StoredOid(oid);
    }
    // The OID of the parent; 0: the root, or a group.
    uint32_t Parent() const;
    bool Watches(const std::string &column) const;
    // An unfinished command for the object, or for the attribute.
    std::string Command(const char *forObject, const char *forAttribute) const;
};

class World
{
  public:
    World(); // everything is there and stored, in epoch 0

    std::vector<Slot> slots;
    std::vector<Epoch> epochs = std::vector<Epoch>(1);

    void Note(Slot &slot, What what, const std::string &column = "",
              size_t length = 0);

    // The last entries of an object's journal, a line each.
    std::string PrintJournal(int64_t storedOid) const;

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

// A column's name in kKinds without its mark, and an array's without its field.
std::string NameOf(const char *column);

// How long the array is when an object appears.
inline constexpr size_t kFirstLength = 3;

} // namespace qdb::chaos
