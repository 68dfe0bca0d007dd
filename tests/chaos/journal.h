// What a chaos run did to each object, and what of it the service was told.
//
// Time is counted in epochs: an epoch begins and ends with a service that has
// worked off everything it was told. What is told of an object alone in its
// epoch has its whole effect; what is told together has it in no order.
#pragma once

#include "tests/chaos/world.h"

#include <map>
#include <string>
#include <vector>

namespace qdb::chaos
{

enum class What
{
    // To the object, at its owner.
    Appear,
    Change, // `column`; `number`: the new length of an array
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

constexpr bool IsTold(What what)
{
    return what >= What::ToldCreate && what <= What::Cleared;
}

struct Entry
{
    size_t epoch;
    What what;
    std::string column;
    size_t number;
};

struct Epoch
{
    bool passRan = false; // a pass of the service was under way in it
    int heldMs = 0;       // another process kept the database so long
    std::string fault;    // the platform call that failed now and then
};

// A row is asked for a second in vain before its reader gives up.
inline constexpr int kLongHoldMs = 1000;

class Journal
{
  public:
    // The run begins in epoch 0 with everything there and stored.
    explicit Journal(const World &world);

    void Add(const Slot &slot, What what, const std::string &column = "",
             size_t number = 0);

    Epoch &Now()
    {
        return epochs_.back();
    }
    size_t Number() const
    {
        return epochs_.size() - 1;
    }
    void NextEpoch()
    {
        epochs_.emplace_back();
    }

    const std::vector<Epoch> &Epochs() const
    {
        return epochs_;
    }
    const std::vector<Entry> &Of(const Slot &slot) const
    {
        return entries_.at(slot.oid);
    }

    // The last entries of an object, a line each.
    std::string Print(const Slot &slot) const;

  private:
    std::vector<Epoch> epochs_ = std::vector<Epoch>(1);
    std::map<uint32_t, std::vector<Entry>> entries_; // by OID
};

} // namespace qdb::chaos
