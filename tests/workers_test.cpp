// The workers: they take the records off the queue, all of them, carry them out
// by their kind, and tell of a corrupt database.

#include "core/sleep.h"
#include "core/state.h"
#include "core/threads.h"
#include "events/workers.h"
#include "queues/event_queue.h"
#include "service/stop.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <set>

namespace qdb::test
{
namespace
{

constexpr uint16_t kStatus = 0x1001;
constexpr char kMapping[] = "insert into ActiveOIDMapping";
constexpr uint16_t kCreate = 7;
constexpr uint16_t kDestroy = 8;

void Enqueue(const Bytes &record)
{
    auto *copy = static_cast<DataEventHeader *>(std::malloc(record.size()));
    std::memcpy(copy, record.data(), record.size());
    QdbenQueue(gQdbEventQueue, copy);
}

TEST(Workers, EndAfterAllThatWasQueued)
{
    Mirror mirror({.threads = true});
    CaptureLog();
    constexpr uint32_t kObjects = 60;
    for (uint32_t oid = 1000; oid < 1000 + kObjects; ++oid)
    {
        PutObject(kStatus, oid);
        Enqueue(List(kCreate, {oid}));
    }
    mirror.StopWorkers();
    EXPECT_EQ(mirror.Value("SELECT count(*) FROM TblDMStatus_Child_Obj"), "60");
    for (int worker = 1; worker <= 10; ++worker)
    {
        const std::string id = std::to_string(worker);
        EXPECT_EQ(CountLog("ACCEPT THREAD " + id + " ENDED"), 1);
        EXPECT_EQ(CountLog("thID = " + id + " Exiting"), 1);
    }
    EXPECT_EQ(QdbEventQSize, 0);
    Enqueue(List(kDestroy, {1000}));
    EXPECT_EQ(QdbEventQSize, 1);
}

std::atomic<int> gAsleep = 0;

void SleepUntilAllDo(unsigned /*microseconds*/)
{
    ++gAsleep;
    WaitUntil(
        []
        {
            return gAsleep >= kWorkerCount;
        },
        kDeadlineMs);
}

// They take turns while records are short, but none waits for one that isn't.
TEST(Workers, AreAllAtWorkWhenRecordsTakeLong)
{
    Mirror mirror({.threads = true});
    Restart();
    FailSteps("select ObjType", SQLITE_BUSY, kWorkerCount);
    gAsleep = 0;
    SetSleepFunction(SleepUntilAllDo);
    for (uint32_t oid = 1000; oid < 1000 + kWorkerCount; ++oid)
    {
        PutObject(kStatus, oid);
        Enqueue(List(kCreate, {oid}));
    }
    EXPECT_TRUE(WaitUntil(
        []
        {
            return gAsleep == kWorkerCount;
        },
        kDeadlineMs / 2));
    mirror.StopWorkers();
    RestoreSleeps();
    EXPECT_EQ(mirror.Value("SELECT count(*) FROM TblDMStatus_Child_Obj"),
              std::to_string(kWorkerCount));
}

// A signal with a handler interrupts the wait for SIGTERM, and is none.
TEST(Stop, IsAskedForBySigtermAlone)
{
    const auto threads = []
    {
        std::set<std::string> ids;
        for (const auto &task :
             std::filesystem::directory_iterator("/proc/self/task"))
        {
            ids.insert(task.path().filename());
        }
        return ids;
    };
    const Mirror mirror;
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    const std::set<std::string> before = threads();
    std::set<std::string> started;
    LetStopIn();
    std::ranges::set_difference(threads(), before,
                                std::inserter(started, started.end()));
    ASSERT_EQ(started.size(), 1U);
    for (int i = 0; i < 1000; ++i)
    {
        EXPECT_EQ(tgkill(getpid(), std::stoi(*started.begin()), SIGUSR1), 0);
        sched_yield();
    }
    FinishStop();
    signal(SIGUSR1, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    EXPECT_FALSE(StopRequested());
    EXPECT_EQ(QdbEventQSize, 0);
}

// One worker alone, so that the order of its records is known.
TEST(Workers, ReportACorruptDatabase)
{
    const Mirror mirror;
    Restart();
    gQdbSeqNumber = 0;
    FailSteps(kMapping, SQLITE_CORRUPT, 1);
    FailSteps(kMapping, SQLITE_ERROR, 1);
    PutObject(kStatus, 16);
    PutObject(kStatus, 17);
    constexpr char kKey[] = "A.1#B.1#C";
    standin::PutAttribute("CfgStrAttribute", kKey, nullptr, 50);
    QdbWorkerArg argument = {7};
    pthread_t worker;
    ASSERT_EQ(pthread_create(&worker, nullptr, QdbWorkerThread, &argument), 0);
    // A post without a record, and a node without one, are passed over.
    sem_post(&gQdbEventSem);
    WaitForLog("Call QdbdeQueue for thID=7", 2);
    QdbenQueue(gQdbEventQueue, nullptr);
    WaitForLog("Call QdbdeQueue for thID=7", 3);
    CaptureLog();
    Enqueue(List(kCreate, {16})); // corrupt
    Enqueue(Record(3450, {}));    // has no status of its own
    Enqueue(List(kCreate, {17})); // fails otherwise
    Enqueue(Record(3450, {}));
    Enqueue(List(kCreate, {16}));
    Enqueue(BusRecord(kCreate, 50, standin::AttributePath(kKey),
                      "com.vexo.tarnu.Config.CfgStrAttribute"));
    Enqueue(Record(1130, {24, 34}, std::string(kKey) + '\0' + "/none" + '\0'));
    static DataEventHeader stop = {};
    stop.evtType = 1001;
    QdbenQueue(gQdbEventQueue, &stop);
    pthread_join(worker, nullptr);
    int posts = -1;
    sem_getvalue(&gSqliteCorruptSem, &posts);
    EXPECT_EQ(posts, 2);
    EXPECT_EQ(mirror.Rows("SELECT OID FROM TblDMStatus_Child_Obj"),
              Lines{"16"});
    EXPECT_EQ(mirror.Rows("SELECT OID, CurrentValue, isRawData FROM "
                          "TblStrAttribute"),
              Lines{"50|NULL|1"});
    EXPECT_EQ(LinesWith({"ACCEPT", "7 Exiting"}),
              (Lines{"Dequeue SeqNo = 8, thID = 7 Exiting",
                     "ACCEPT THREAD 7 ENDED"}));
}

} // namespace
} // namespace qdb::test
