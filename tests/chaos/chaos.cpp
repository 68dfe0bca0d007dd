#include "tests/chaos/chaos.h"

#include "tools/audit/audit.h"

#include <utility>

namespace qdb::chaos
{

// Not std::uniform_int_distribution, whose results differ between libraries.
uint32_t Chaos::Below(uint32_t limit)
{
    return static_cast<uint32_t>(engine() % limit);
}

Slot *Chaos::Pick(unsigned traits)
{
    std::vector<Slot *> fitting;
    for (Slot &slot : world.slots)
    {
        if (slot.Is(traits))
        {
            fitting.push_back(&slot);
        }
    }
    return fitting.empty()
               ? nullptr
               : fitting[Below(static_cast<uint32_t>(fitting.size()))];
}

Chaos::Chaos(uint32_t seed, World &theWorld, Driver &theDriver)
    : world(theWorld), driver(theDriver), engine(seed),
      shadow(driver.Service().Root().Database(), "")
{
    givenUp = driver.GivenUp();
    checker.Doubt(); // what is there was never announced
    checker.LetVanish(
        [this](const test::RowName &name)
        {
            const Slot *slot = world.Find(name.second);
            return slot == nullptr || slot->Is(kPassed);
        });
}

// Where the database was kept for long, what was written may have gone
// unannounced; a pass that was under way may end in the next epoch.
void Chaos::FollowSignals()
{
    // A row is asked for a second in vain before its reader gives up.
    constexpr int kLongHoldMs = 1000;
    const Epoch &epoch = world.epoch;
    const bool isDoubtful = epoch.cleared || epoch.heldMs >= kLongHoldMs;
    const bool isDoubted = isDoubtful || wasDoubtful;
    driver.Signals().Sync();
    shadow.Process(0);
    for (const test::Change &change : driver.Signals().Take())
    {
        const std::string fault = checker.Take(change);
        signals += isDoubted ? 0u : 1u;
        if (!fault.empty() && signalFault.empty() && !isDoubted)
        {
            signalFault = fault + world.PrintJournal(checker.Last().second);
        }
    }
    if (isDoubted)
    {
        checker.Doubt();
    }
    wasDoubtful = isDoubtful && epoch.passRan;
}

std::string Chaos::JudgeSignals()
{
    FollowSignals();
    return checker.Judge(test::RowsIn(audit::ReadSnapshot(driver.Database())));
}

bool Chaos::Settle()
{
    if (!hang.empty())
    {
        driver.Do(std::exchange(hang, ""));
    }
    world.epoch.heldMs = driver.Release();
    bool passRan = false;
    const bool settled = driver.Settle(&passRan);
    const uint64_t givenUpBefore = std::exchange(givenUp, driver.GivenUp());
    world.epoch.gaveUp = givenUp != givenUpBefore;
    world.epoch.passRan = world.epoch.passRan || passRan;
    FollowSignals();
    world.EndEpoch();
    return settled;
}

} // namespace qdb::chaos
