// Faults swept over a whole life: the 1st, 2nd, ... call of a kind fails, once
// or from there on for good, until the life has no more of them.
//
// The service neither crashes nor hangs, it ends by itself only where that is
// promised, and with the fault over, and all announced again, its rows are
// right, and changes are told. Here are some points, chosen by a seed; all are
//
//   sweep_test --whole KIND [--part 0/2]
//
// a kind being a part of its name, such as Step, or All: that takes hours, and
// parts share the points of each kind.

#include "standin/calls.h"
#include "tests/support/private_bus.h"
#include "tests/sweep/life.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace qdb::sweep
{
namespace
{

std::string gWhole; // the kinds; "": some points
int gPart = 0;
int gParts = 1;
uint32_t gSeed = std::random_device()();

// clang-format off
const Kind kKinds[] = {
    {Call::Step, "StepIsBusy", 5, ""},
    {Call::Step, "StepIsLocked", 6, ""},
    {Call::Step, "StepLacksMemory", 7, ""},
    {Call::Step, "StepFailsToReadOrWrite", 10, ""},
    {Call::Step, "StepMeetsCorruption", 11, "", true},
    {Call::Step, "StepMeetsAFullDisk", 13, ""},
    {Call::Prepare, "PrepareFails", 1, ""},
    {Call::Prepare, "PrepareMeetsCorruption", 11, "", true},
    {Call::Allocation, "Allocation", 0, "", true},
    {Call::Write, "PipeIsFull", EAGAIN, ""},
    {Call::Write, "PipeHasNoReader", EPIPE, ""},
    {Call::Write, "PipeFails", EIO, ""},
    {Call::Write, "PipeTakesHalf", 0, ""},
    {Call::Send, "BusHasNoRoom", ENOBUFS, ""},
    {Call::Send, "BusIsGone", ENOTCONN, ""},
};
// clang-format on

constexpr std::string_view kReturnNothing[] = {"FreeObjectList", "ZOFreeMem",
                                               "ZOILFreeGeneric", "vexoprintf"};

std::vector<Kind> AllKinds()
{
    std::vector<Kind> kinds(std::begin(kKinds), std::end(kKinds));
    for (const std::string_view call : standin::kCalls)
    {
        constexpr int kStatus = 5;
        const std::string name(call);
        if (std::ranges::find(kReturnNothing, call) == std::end(kReturnNothing))
        {
            kinds.push_back({Call::Platform, name + "Fails", kStatus, name,
                             call == "ZOILAddEventListener",
                             call == "ZOMutexUnLock"});
        }
        kinds.push_back({Call::Hang, name + "Hangs", 0, name});
    }
    return kinds;
}

std::string NameOf(const Fault &fault)
{
    return fault.kind.name + " at " + std::to_string(fault.at) +
           (fault.forGood ? ", for good" : ", once");
}

// Whether the life came to the fault, or ended before.
bool RunPoint(const Fault &fault)
{
    SCOPED_TRACE(NameOf(fault));
    const Outcome outcome = Live(fault);
    const bool mayEnd = fault.kind.mayEnd;
    EXPECT_TRUE(outcome.status == 0 || (outcome.status == 1 && mayEnd))
        << "status " << outcome.status << "\n"
        << outcome.wrong;
    EXPECT_TRUE(outcome.hasFinished || mayEnd) << "it has ended by itself";
    if (!fault.kind.leavesStuck)
    {
        EXPECT_EQ(outcome.wrong, "");
    }
    return !outcome.hasFinished || outcome.calls > fault.at;
}

void SweepSome()
{
    constexpr size_t kChosen = 12;
    constexpr int kNever = 1 << 28;
    std::printf("--seed %u\n", gSeed);
    std::mt19937 engine(gSeed);
    std::vector<Kind> kinds = AllKinds();
#ifdef __SANITIZE_THREAD__
    // A mutex that stays taken has to it an order with all that are taken
    // later.
    std::erase_if(kinds, std::mem_fn(&Kind::leavesStuck));
#endif
    std::ranges::shuffle(kinds, engine);
    for (size_t i = 0; i < kChosen; ++i)
    {
        const Outcome outcome = Live({kinds[i], kNever, false});
        EXPECT_EQ(outcome.wrong, "");
        // Of some there is none before the stop.
        const auto calls = static_cast<uint32_t>(std::max(outcome.calls, 1));
        RunPoint({kinds[i], static_cast<int>(engine() % calls),
                  kinds[i].call != Call::Hang && engine() % 2 == 0});
    }
}

void SweepKind(const Kind &kind, bool forGood)
{
    int points = 0;
    for (int at = gPart; RunPoint({kind, at, forGood}); at += gParts)
    {
        ++points;
    }
    std::printf("%s%s: %d points\n", kind.name.c_str(),
                forGood ? ", for good" : "", points);
    std::fflush(stdout);
}

void SweepWhole()
{
    for (const Kind &kind : AllKinds())
    {
        if (gWhole != "All" && kind.name.find(gWhole) == std::string::npos)
        {
            continue;
        }
        SweepKind(kind, false);
        if (kind.call != Call::Hang) // it is let go
        {
            SweepKind(kind, true);
        }
    }
}

TEST(Sweep, LeavesTheServiceWell)
{
    gWhole.empty() ? SweepSome() : SweepWhole();
}

void ReadOptions(int argc, char **argv)
{
    for (int i = 1; i + 1 < argc; i += 2)
    {
        const std::string_view option = argv[i];
        if (option == "--seed")
        {
            gSeed =
                static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
        }
        else if (option == "--whole")
        {
            gWhole = argv[i + 1];
        }
        else if (option == "--part")
        {
            std::sscanf(argv[i + 1], "%d/%d", &gPart, &gParts);
        }
    }
}

} // namespace
} // namespace qdb::sweep

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    qdb::sweep::ReadOptions(argc, argv);
    const qdb::test::PrivateBus bus;
    return RUN_ALL_TESTS();
}
