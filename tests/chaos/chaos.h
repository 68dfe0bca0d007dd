// A run: the world, the service in it, and the source of all choices.
//
// Choices come from one seeded engine and from the world alone, never from the
// service, so that a seed stands for one sequence of actions.
#pragma once

#include "tests/chaos/driver.h"
#include "tests/chaos/world.h"
#include "tests/client/shadow.h"
#include "tests/support/signal_checker.h"

#include <random>

namespace qdb::chaos
{

struct Chaos
{
    Chaos(uint32_t seed, World &theWorld, Driver &theDriver);

    // A number below `limit`.
    uint32_t Below(uint32_t limit);

    // A slot of which all that is true, or NULL.
    Slot *Pick(unsigned traits);

    // Ends the epoch. False when the service is stuck.
    bool Settle();

    // Takes the signals that the service has sent so far.
    void FollowSignals();

    // What is wrong between the signals so far and the tables; "" when nothing
    // is. The service is at rest.
    std::string JudgeSignals();

    World &world;
    Driver &driver;
    std::mt19937 engine;
    bool isCleared = false; // and not attached since
    std::string hang;       // the command that lets a hanging call go
    test::SignalChecker checker;
    std::string signalFault;  // the first, with the journal of its object
    uint64_t givenUp = 0;     // by the service, at the end of the last epoch
    bool wasDoubtful = false; // and so may this epoch's signals be
    size_t signals = 0;       // that were judged
    test::Shadow shadow;      // which knows the client library alone
    double slowest = 0;       // seconds that it took to be right
};

} // namespace qdb::chaos
