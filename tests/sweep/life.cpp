#include "tests/sweep/life.h"

#include "core/paths.h"
#include "objects/catalogue.h"
#include "service/lifecycle.h"
#include "tests/support/audited.h"
#include "tests/support/change_listener.h"
#include "tests/support/temp_root.h"
#include "tests/support/wait.h"
#include "tests/sweep/scenario.h"

#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <latch>
#include <stdexcept>
#include <thread>

namespace qdb::sweep
{
namespace
{

constexpr int kHungMs = 120000;
constexpr int kWholeMs = 20000; // until all is as announced
constexpr int kShortMs = 1000;  // where that may never be

// --- In the service's process ------------------------------------------------

std::thread gDriver;

std::string Describe(const audit::Report &report)
{
    constexpr size_t kTold = 10;
    std::string text;
    for (size_t i = 0; i < std::min(report.differences.size(), kTold); ++i)
    {
        text += audit::Print(report.differences[i]) + "\n";
    }
    return text;
}

// What both managers and the database differ in, on one connection.
class Auditor
{
  public:
    explicit Auditor(const test::TempRoot &root)
        : database_(test::OpenDatabase(root.Database()))
    {
        sqlite3_busy_timeout(database_.get(), test::kDeadlineMs);
    }

    audit::Report Look() const
    {
        return audit::Compare(test::Managers(),
                              audit::ReadSnapshot(database_.get()));
    }

  private:
    ConnectionPtr database_;
};

bool IsOfObject(const audit::Difference &difference)
{
    return !IsConfigType(difference.type);
}

// Waits until the rows are right. Without ears for the bus there are no
// attributes.
bool AwaitRows(const Auditor &auditor, bool isDeaf, int patienceMs,
               audit::Report *pFound)
{
    return test::WaitUntil(
        [&]
        {
            *pFound = auditor.Look();
            return HasEnded() ||
                   (isDeaf
                        ? std::ranges::none_of(pFound->differences, IsOfObject)
                        : pFound->differences.empty());
        },
        patienceMs);
}

// What is wrong with the service once the fault is over: rows that aren't
// right, a change that nobody is told of.
std::string Judge(const Auditor &auditor, const Fault &fault)
{
    const Kind &kind = fault.kind;
    const bool mayOrphan = kind.call == Call::Step && fault.forGood;
    const int patienceMs = kind.leavesStuck || mayOrphan ? kShortMs : kWholeMs;
    AwaitEndOfFault();
    const bool isDeaf = !AnnounceAll() && kind.mayEnd;
    audit::Report found;
    bool isRight = AwaitRows(auditor, isDeaf, patienceMs, &found);
    if (!isRight && mayOrphan)
    {
        // A row that could not be inserted leaves its mapping, which neither
        // a create nor a destroy of the object gets past.
        DetachAndAttach();
        isRight = AwaitRows(auditor, isDeaf, kWholeMs, &found);
    }
    return isRight ? FollowChange(kWholeMs) : Describe(found);
}

// Plays, and tells the parent: the number of calls, then what is wrong.
void Drive(const test::TempRoot &root, const Fault &fault, FILE *report)
{
    Play();
    const int calls = Disarm();
    if (HasEnded())
    {
        return;
    }
    const Auditor auditor(root);
    const std::string wrong = Judge(auditor, fault);
    if (!HasEnded())
    {
        std::fprintf(report, "%d\n%s", calls, wrong.c_str());
        kill(getpid(), SIGTERM);
    }
}

void RunDriver(const test::TempRoot &root, const Fault &fault, FILE *report,
               std::latch *pIsSpared)
{
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);
    SpareThisThread();
    pIsSpared->count_down();
    try
    {
        Drive(root, fault, report);
    }
    catch (const std::exception &error)
    {
        std::fprintf(report, "0\n%s\n", error.what());
        kill(getpid(), SIGTERM);
    }
    std::fclose(report);
}

// Also when the service exits on the spot.
void EndDriver()
{
    NoteEnd();
    gDriver.join();
}

// Faults meet the service alone, not what it is driven by. Nothing of the test
// may go on here, whatever is thrown.
[[noreturn]] void RunChild(const test::TempRoot &root, const Fault &fault,
                           FILE *report) noexcept
{
    gRuntimeRoot = root.Path().c_str();
    Begin(root);
    std::latch isSpared(1);
    gDriver = std::thread(
        [&]
        {
            RunDriver(root, fault, report, &isSpared);
        });
    isSpared.wait();
    std::atexit(EndDriver);
    Arm(fault);
    std::exit(RunService());
}

// --- In the test's process ---------------------------------------------------

int WaitExit(pid_t pid)
{
    int status = 0;
    const bool hasEnded = test::WaitUntil(
        [&]
        {
            return waitpid(pid, &status, WNOHANG) == pid;
        },
        kHungMs);
    if (!hasEnded)
    {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void ReadReport(FILE *report, Outcome *pOutcome)
{
    pOutcome->hasFinished = std::fscanf(report, "%d\n", &pOutcome->calls) == 1;
    char block[4096];
    const size_t size = std::fread(block, 1, sizeof(block), report);
    pOutcome->wrong.assign(block, size);
}

} // namespace

Outcome Live(const Fault &fault)
{
    test::TempRoot root;
    root.MakeDatabase();
    root.MakePipe();
    int ends[2] = {};
    if (pipe(ends) != 0)
    {
        throw std::runtime_error("no pipe");
    }
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0)
    {
        close(ends[0]);
        RunChild(root, fault, fdopen(ends[1], "w"));
    }
    close(ends[1]);
    Outcome outcome;
    outcome.status = WaitExit(pid);
    FILE *report = fdopen(ends[0], "r");
    ReadReport(report, &outcome);
    std::fclose(report);
    return outcome;
}

} // namespace qdb::sweep
