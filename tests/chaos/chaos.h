// A run: the world, the service in it, and the source of all choices.
//
// Choices come from one seeded engine and from the world alone, never from the
// service, so that a seed stands for one sequence of actions.
#pragma once

#include "tests/chaos/driver.h"
#include "tests/chaos/world.h"

#include <random>

namespace qdb::chaos
{

struct Chaos
{
    Chaos(uint32_t seed, World &theWorld, Driver &theDriver)
        : world(theWorld), driver(theDriver), engine(seed)
    {
    }

    // A number below `limit`.
    uint32_t Below(uint32_t limit);

    // A slot of which all that is true, or NULL.
    Slot *Pick(unsigned traits);

    // Ends the epoch. False when the service is stuck.
    bool Settle();

    World &world;
    Driver &driver;
    std::mt19937 engine;
    bool isCleared = false; // and not attached since
};

} // namespace qdb::chaos
