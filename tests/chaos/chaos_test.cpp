// Chaos: everything that may happen around the service happens to it, at random
// and at once, for as long as wanted; then quiet, the passes that it promises,
// and an audit of its database, in which every remaining difference must be
// explained by a named rule of the service.
//
//   chaos_test [--seconds N] [--seed S] [--trace]
//
// N seconds of chaos, 30 unless told otherwise, a round for every 30 of them.
// The same seed gives the same sequence of actions; how many of them fit into a
// round depends on the machine.

#include "tests/chaos/actions.h"
#include "tests/chaos/explain.h"
#include "tests/support/private_bus.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

namespace qdb::chaos
{
namespace
{

struct Options
{
    double seconds = 30;
    uint32_t seed = 0;
    bool trace = false;
};

Options gOptions;
std::map<std::string, size_t> gExplained; // by rule

constexpr double kRoundSeconds = 30;

using Clock = std::chrono::steady_clock;

// Differences that last.
audit::Report Audit(Driver &driver)
{
    constexpr int kLooks = 4;
    return audit::Looks(
        kLooks,
        [&]
        {
            return audit::ParseContent(driver.Do(R"({"op":"dump"})").get());
        },
        driver.Database(),
        [](int look)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(50 << look));
        });
}

void Judge(const audit::Report &report, const Chaos &chaos, bool afterPasses)
{
    const std::vector<Slot> &slots = chaos.world.slots;
    const Explained explained =
        Explain(report, chaos.world, chaos.journal, afterPasses);
    for (const auto &[rule, count] : explained.counts)
    {
        gExplained[rule] += count;
    }
    for (const audit::Difference &difference : explained.unexplained)
    {
        const auto slot =
            std::ranges::find(slots, difference.oid, &Slot::Stored);
        ADD_FAILURE() << audit::Print(difference) << "\n"
                      << (slot == slots.end() ? "  no such object"
                                              : chaos.journal.Print(*slot));
    }
    EXPECT_TRUE(report.unstorable.empty());
}

// Right after an epoch nothing is promised of passes; and while one is under
// way, nothing stands still.
void JudgeAmidst(Chaos &chaos)
{
    if (chaos.isDetached || chaos.driver.PassRuns())
    {
        return;
    }
    const audit::Report report = Audit(chaos.driver);
    if (!chaos.driver.PassRuns())
    {
        Judge(report, chaos, false);
    }
}

void RunRound(double seconds, Chaos &chaos)
{
    constexpr size_t kEpochsBetweenLooks = 5;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    while (Clock::now() < end && !::testing::Test::HasFailure())
    {
        ASSERT_TRUE(chaos.RunEpoch()) << "the service is stuck";
        ASSERT_EQ(chaos.driver.Service().WaitExit(0), -1) << "it has ended";
        if (chaos.journal.Number() % kEpochsBetweenLooks == 0)
        {
            JudgeAmidst(chaos);
        }
    }
    if (::testing::Test::HasFailure())
    {
        return;
    }
    ASSERT_TRUE(chaos.Quieten()) << "the service is stuck";
    const audit::Report report = Audit(chaos.driver);
    std::printf("epoch %zu: %s\n", chaos.journal.Number(),
                audit::Summary(report).c_str());
    Judge(report, chaos, true);
}

// Keeps the service's log of a run that fails.
class LogKeeper
{
  public:
    explicit LogKeeper(const Driver &driver) : driver_(driver)
    {
    }
    ~LogKeeper()
    {
        if (::testing::Test::HasFailure() || std::uncaught_exceptions() > 0)
        {
            const std::string kept =
                "chaos-" + std::to_string(gOptions.seed) + ".log";
            std::ofstream(kept) << driver_.Service().Log();
            std::printf("the service's log: %s\n",
                        std::filesystem::absolute(kept).c_str());
        }
    }
    LogKeeper(const LogKeeper &) = delete;
    LogKeeper &operator=(const LogKeeper &) = delete;

  private:
    const Driver &driver_;
};

TEST(ChaosRun, LeavesNoDifferenceWithoutACause)
{
    std::printf("--seed %u --seconds %g\n", gOptions.seed, gOptions.seconds);
    SCOPED_TRACE("--seed " + std::to_string(gOptions.seed));
    World world;
    Driver driver(world.Scenario());
    const LogKeeper keeper(driver);
    Journal journal(world);
    Chaos chaos(gOptions.seed, gOptions.trace, world, journal, driver);
    for (double left = gOptions.seconds; left > 0 && !HasFailure();
         left -= kRoundSeconds)
    {
        RunRound(std::min(left, kRoundSeconds), chaos);
    }
    for (const auto &[rule, count] : gExplained)
    {
        std::printf("  %-24s %zu\n", rule.c_str(), count);
    }
    EXPECT_EQ(driver.Service().Stop(), 0);
    EXPECT_EQ(driver.Service().ReadyAttribute(), 0);
}

void ReadOptions(int argc, char **argv)
{
    gOptions.seed = std::random_device()();
    for (int i = 1; i < argc; ++i)
    {
        const bool hasValue = i + 1 < argc;
        if (std::strcmp(argv[i], "--trace") == 0)
        {
            gOptions.trace = true;
        }
        else if (hasValue && std::strcmp(argv[i], "--seconds") == 0)
        {
            gOptions.seconds = std::atof(argv[++i]);
        }
        else if (hasValue && std::strcmp(argv[i], "--seed") == 0)
        {
            gOptions.seed =
                static_cast<uint32_t>(std::strtoul(argv[++i], nullptr, 10));
        }
    }
}

} // namespace
} // namespace qdb::chaos

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    qdb::chaos::ReadOptions(argc, argv);
    const qdb::test::PrivateBus bus;
    return RUN_ALL_TESTS();
}
