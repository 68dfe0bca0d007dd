// What may happen in a chaos chaos.
//
// All choices come from one seeded engine and from the world alone, never from
// the service, so that a seed stands for one sequence of actions.
#pragma once

#include "tests/chaos/driver.h"
#include "tests/chaos/journal.h"
#include "tests/chaos/world.h"

#include <random>
#include <string>
#include <vector>

namespace qdb::chaos
{

class Chaos
{
  public:
    Chaos(uint32_t seed, bool trace, World &world, Journal &journal,
          Driver &driver);

    // Some actions at once, or some while a platform call fails; then waits for
    // the service. False when it is stuck.
    bool RunEpoch();

    // Ends what is still going on, leaves some of it to the passes that the
    // service promises, and waits for them.
    bool Quieten();

    // Ends the epoch. False when the service is stuck.
    bool Settle();

    // A number below `limit`.
    uint32_t Below(uint32_t limit);

    // A slot that fits, or NULL.
    template <typename Fits>
    Slot *Pick(Fits fits)
    {
        std::vector<Slot *> fitting;
        for (Slot &slot : world.slots)
        {
            if (fits(slot))
            {
                fitting.push_back(&slot);
            }
        }
        return fitting.empty()
                   ? nullptr
                   : fitting[Below(static_cast<uint32_t>(fitting.size()))];
    }

    void Trace(const std::string &text) const;

    // A list of the slot's own that tells the service (3, 7 or 8).
    void SendList(int type, const std::vector<Slot *> &slots);

    World &world;
    Journal &journal;
    Driver &driver;
    bool isDetached = false;

  private:
    void LeaveToFailQueue();
    void LeaveToReloads();

    std::mt19937 engine_;
    bool trace_;
};

} // namespace qdb::chaos
