// The workers: they take the records off the queue, all of them, carry them out
// by their kind, and tell of a corrupt database. And the stop that ends them.

#include "core/sleep.h"
#include "core/threads.h"
#include "events/workers.h"
#include "service/stop.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"
#include "tests/support/wait.h"

#include <signal.h>
#include <unistd.h>

#include <filesystem>

namespace qdb::test
{
namespace
{

constexpr uint16_t kStatus = 0x1001;
constexpr char kMapping[] = "insert into ActiveOIDMapping";

// Creates of so many objects, each by a record of its own.
void EnqueueCreates(uint32_t count)
{
    for (uint32_t oid = 1000; oid < 1000 + count; ++oid)
    {
        PutObject(kStatus, oid);
        Enqueue(List(DATA_EVENT_DATA_OBJ_CREATE, {oid}));
    }
}

TEST(Workers, EndAfterAllThatWasQueued)
{
    Mirror mirror({.threads = true});
    CaptureLog();
    EnqueueCreates(60);
    mirror.StopWorkers();
    EXPECT_EQ(mirror.Value("SELECT count(*) FROM TblDMStatus_Child_Obj"), "60");
    for (int worker = 1; worker <= 10; ++worker)
    {
        EXPECT_EQ(CountLog("ACCEPT THREAD " + std::to_string(worker) + " END"),
                  1);
    }
    EXPECT_EQ(TakeQueued(), std::vector<Bytes>{});
}

std::atomic<int> gAsleep = 0;

void SleepUntilAllDo(unsigned /*microseconds*/)
{
    ++gAsleep;
    WaitUntil(
        []
        {
            return gAsleep >= kWorkerCount;
        });
}

// They take turns while records are short, but none waits for one that isn't.
TEST(Workers, AreAllAtWorkWhenRecordsTakeLong)
{
    Mirror mirror({.threads = true});
    Restart();
    FailSteps("select ObjType", SQLITE_BUSY, kWorkerCount);
    gAsleep = 0;
    SetSleepFunction(SleepUntilAllDo);
    EnqueueCreates(kWorkerCount);
    EXPECT_TRUE(WaitUntil(
        []
        {
            return gAsleep == kWorkerCount;
        },
        kDeadlineMs / 2));
    mirror.StopWorkers();
    RestoreSleeps();
    EXPECT_EQ(mirror.Value("SELECT count(*) FROM TblDMStatus_Child_Obj"), "10");
}

// One worker alone, so that the order of its records is known.
TEST(Workers, ReportACorruptDatabase)
{
    const Mirror mirror;
    Restart();
    FailSteps(kMapping, SQLITE_CORRUPT, 1);
    FailSteps(kMapping, SQLITE_ERROR, 1);
    PutObject(kStatus, 16);
    PutObject(kStatus, 17);
    constexpr char kKey[] = "A.1#B.1#C";
    standin::PutAttribute("CfgStrAttribute", kKey, nullptr, 50);
    QdbWorkerArg argument = {7};
    std::thread worker(QdbWorkerThread, &argument);
    // A post without a record, and a node without one, are passed over.
    sem_post(&gQdbEventSem);
    WaitForLog("Call QdbdeQueue for thID=7", 2);
    QdbenQueue(gQdbEventQueue, nullptr);
    const Bytes unhandled = Record(3450, {}); // has no status of its own
    const Bytes kRecords[] = {
        List(DATA_EVENT_DATA_OBJ_CREATE, {16}), // corrupt
        unhandled,
        List(DATA_EVENT_DATA_OBJ_CREATE, {17}), // fails otherwise
        unhandled,
        List(DATA_EVENT_DATA_OBJ_CREATE, {16}),
        BusRecord(DATA_EVENT_DATA_OBJ_CREATE, 50, standin::AttributePath(kKey),
                  "com.vexo.tarnu.Config.CfgStrAttribute"),
        Record(1130, {24, 34}, std::string(kKey) + '\0' + "/none" + '\0'),
    };
    for (const Bytes &record : kRecords)
    {
        Enqueue(record);
    }
    QueueStopRecords();
    worker.join();
    int posts = -1;
    sem_getvalue(&gSqliteCorruptSem, &posts);
    EXPECT_EQ(posts, 2);
    EXPECT_EQ(mirror.Rows("SELECT OID FROM TblDMStatus_Child_Obj"),
              Lines{"16"});
    EXPECT_EQ(mirror.Rows("SELECT OID, CurrentValue, isRawData FROM "
                          "TblStrAttribute"),
              Lines{"50|NULL|1"});
}

// A signal with a handler interrupts the wait for SIGTERM, and is none.
TEST(Stop, IsAskedForBySigtermAlone)
{
    const Mirror mirror;
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    LetStopIn();
    for (int i = 0; i < 1000; ++i)
    {
        for (const auto &thread :
             std::filesystem::directory_iterator("/proc/self/task"))
        {
            tgkill(getpid(), std::stoi(thread.path().filename()), SIGUSR1);
        }
        sched_yield();
    }
    FinishStop();
    // A thread may not have got to its last one yet.
    signal(SIGUSR1, SIG_IGN);
    signal(SIGTERM, SIG_DFL);
    EXPECT_FALSE(StopRequested());
    EXPECT_EQ(QdbEventQSize, 0);
}

} // namespace
} // namespace qdb::test
