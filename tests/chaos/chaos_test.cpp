// Chaos: everything that may happen around the service happens to it, at random
// and at once, for as long as wanted. Every few epochs the rows of all objects
// that were told of alone and met no fault must be exact; in the end everything
// is made anew, and all must be.
//
//   chaos_test [--seconds N] [--seed S]
//
// N seconds of chaos, 30 unless told otherwise, a round for every 30 of them.
// The same seed gives the same sequence of actions; how many of them fit into a
// round depends on the machine.

#include "tests/chaos/actions.h"
#include "tests/support/private_bus.h"
#include "tests/support/wait.h"
#include "tools/audit/audit.h"
#include "tools/qdb/statistics.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>

namespace qdb::chaos
{
namespace
{

double gSeconds = 30;
uint32_t gSeed = std::random_device()();
size_t gJudged = 0;  // rows, in all looks
size_t gCouldBe = 0; // if none were in doubt
int gRound = 0;

constexpr double kRoundSeconds = 30;

using Clock = std::chrono::steady_clock;

// A line of the service's status in MiB, such as "VmRSS:"; 0 once it has ended.
double MemoryOf(const Driver &driver, const std::string &line)
{
    std::ifstream status("/proc/" + std::to_string(driver.Service().Pid()) +
                         "/status");
    std::string word;
    double kib = 0;
    while (status >> word)
    {
        if (word == line)
        {
            status >> kib;
            break;
        }
    }
    return kib / 1024;
}

// Strangers make it neither grow nor reach beyond what a flood may hold. The
// sanitizers keep what was freed.
void JudgeMemory(const Driver &driver, double before)
{
    std::printf("resident MiB: %.1f at first, %.1f now, %.1f at most\n", before,
                MemoryOf(driver, "VmRSS:"), MemoryOf(driver, "VmHWM:"));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    constexpr double kMost = 160;
    EXPECT_LT(MemoryOf(driver, "VmHWM:"), kMost);
#endif
}

// Differences that are there in each of so many looks.
audit::Report Audit(Driver &driver, int looks)
{
    return audit::Looks(
        looks,
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

// Short enough to be read whole at the end of a log.
std::string Describe(const std::vector<audit::Difference> &differences,
                     const World &world)
{
    constexpr size_t kDifferences = 10;
    constexpr size_t kJournals = 2;
    std::string text;
    std::set<int64_t> told;
    for (size_t i = 0; i < std::min(differences.size(), kDifferences); ++i)
    {
        const audit::Difference &difference = differences[i];
        text += audit::Print(difference) + "\n";
        if (told.size() < kJournals && told.insert(difference.oid).second)
        {
            text += world.PrintJournal(difference.oid);
        }
    }
    return text;
}

// `isAll`: rows in doubt must be exact, too.
void Judge(const audit::Report &report, const World &world, bool isAll)
{
    std::vector<audit::Difference> wrong;
    for (const audit::Difference &difference : report.differences)
    {
        const Slot *slot = world.Find(difference.oid);
        if (isAll || slot == nullptr || slot->isExact)
        {
            wrong.push_back(difference);
        }
    }
    EXPECT_TRUE(wrong.empty()) << wrong.size() << " differences\n"
                               << Describe(wrong, world);
    EXPECT_TRUE(report.unstorable.empty());
    gJudged += isAll ? world.slots.size()
                     : static_cast<size_t>(std::ranges::count(world.slots, true,
                                                              &Slot::isExact));
    gCouldBe += world.slots.size();
}

// The service accounts for each object that arrived.
std::string JudgeRoads(const tool::Statistics &statistics)
{
    std::string wrong;
    for (const std::string &road : tool::Unbalanced(statistics))
    {
        wrong += road + "\n";
    }
    return wrong;
}

// It has counted as many rows as each table has.
std::string JudgeRows(const tool::Statistics &statistics,
                      const std::string &database)
{
    std::string wrong;
    for (const tool::Series &table : statistics.Find("table_rows")->series)
    {
        const std::string name(table.Label("table"));
        const std::string rows =
            test::QueryValue(database, "SELECT count(*) FROM " + name);
        if (rows != std::to_string(table.Count()))
        {
            wrong += name + " has " + rows + " rows, " +
                     std::to_string(table.Count()) + " counted\n";
        }
    }
    return wrong;
}

// While a pass is under way nothing stands still.
void JudgeAmidst(Chaos &chaos)
{
    if (chaos.driver.HasPassRun())
    {
        return;
    }
    const audit::Report report = Audit(chaos.driver, 1);
    const std::string signals = chaos.JudgeSignals();
    const std::string roads = JudgeRoads(chaos.driver.Statistics());
    if (!chaos.driver.HasPassRun())
    {
        Judge(report, chaos.world, false);
        EXPECT_EQ(signals, "");
        EXPECT_EQ(roads, "");
    }
}

// Also while a pass is under way, which the shadow follows.
void JudgeShadow(Chaos &chaos)
{
    chaos.slowest = std::max(chaos.slowest, chaos.shadow.Settle());
}

void RunRound(double seconds, Chaos &chaos)
{
    constexpr size_t kEpochsBetweenLooks = 3;
    constexpr int kLastLooks = 4;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    while (Clock::now() < end && !::testing::Test::HasFailure())
    {
        ASSERT_TRUE(RunEpoch(chaos)) << "the service is stuck";
        EXPECT_EQ(chaos.signalFault, "");
        ASSERT_EQ(chaos.driver.Service().WaitExit(0), -1) << "it has ended";
        if (chaos.world.epochs % kEpochsBetweenLooks == 0)
        {
            JudgeAmidst(chaos);
            JudgeShadow(chaos);
        }
    }
    if (::testing::Test::HasFailure())
    {
        return;
    }
    ASSERT_TRUE(Quieten(chaos)) << "the service is stuck";
    const audit::Report report = Audit(chaos.driver, kLastLooks);
    std::printf("round %d of %.0f, epoch %zu: %s, %.1f MiB\n", ++gRound,
                std::ceil(gSeconds / kRoundSeconds), chaos.world.epochs,
                audit::Summary(report).c_str(),
                MemoryOf(chaos.driver, "VmRSS:"));
    std::fflush(stdout); // somebody may be waiting for an hour
    Judge(report, chaos.world, true);
    // Passes go on, and what they do is told a moment later.
    std::string wrong;
    EXPECT_TRUE(test::WaitUntil(
        [&]
        {
            const tool::Statistics books = chaos.driver.Statistics();
            wrong = chaos.JudgeSignals() + JudgeRoads(books) +
                    JudgeRows(books, chaos.driver.Service().Root().Database());
            return wrong.empty();
        }))
        << wrong;
    EXPECT_EQ(chaos.signalFault, "");
    JudgeShadow(chaos);
}

void KeepLog(Driver &driver)
{
    const std::string kept = "chaos-" + std::to_string(gSeed) + ".log";
    std::ofstream(kept) << driver.Log().Tail();
    std::printf("the service's log: %s\n",
                std::filesystem::absolute(kept).c_str());
}

TEST(ChaosRun, KeepsEveryRowExact)
{
    std::printf("--seed %u --seconds %g\n", gSeed, gSeconds);
    SCOPED_TRACE("--seed " + std::to_string(gSeed));
    World world;
    Driver driver(world.Scenario());
    Chaos chaos(gSeed, world, driver);
    const double memory = MemoryOf(driver, "VmRSS:");
    try
    {
        for (double left = gSeconds; left > 0 && !HasFailure();
             left -= kRoundSeconds)
        {
            RunRound(std::min(left, kRoundSeconds), chaos);
        }
    }
    catch (const std::exception &error)
    {
        ADD_FAILURE() << error.what();
    }
    std::printf("%zu of %zu rows and %zu signals judged\n", gJudged, gCouldBe,
                chaos.signals);
    std::printf("%zu differences told to a consumer, %d looks without a "
                "signal; right in %.2f s at most\n",
                chaos.shadow.Told(), chaos.shadow.Resyncs(QDB_SILENT_CHANGE),
                chaos.slowest);
    JudgeMemory(driver, memory);
    EXPECT_EQ(driver.Service().Stop(), 0);
    EXPECT_EQ(driver.Service().ReadyAttribute(), 0);
    if (HasFailure())
    {
        KeepLog(driver);
    }
}

void ReadOptions(int argc, char **argv)
{
    for (int i = 1; i + 1 < argc; i += 2)
    {
        if (std::strcmp(argv[i], "--seconds") == 0)
        {
            gSeconds = std::atof(argv[i + 1]);
        }
        else if (std::strcmp(argv[i], "--seed") == 0)
        {
            gSeed =
                static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
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
