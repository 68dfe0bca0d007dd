// The Data Manager's callback: what it queues, what it carries out at once, and
// what it leaves alone. What it refuses is in bad_records_test.cpp.

#include "core/gate.h"
#include "core/lock.h"
#include "core/ready.h"
#include "events/listener.h"
#include "objects/handlers.h"
#include "tests/support/change_listener.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"
#include "tests/support/wait.h"

#include <thread>

namespace qdb::test
{
namespace
{

constexpr uint16_t kStatus = 0x1001;

class Listener : public DbTest
{
  protected:
    static void CreateRows(const Words &oids)
    {
        for (const uint32_t oid : oids)
        {
            EXPECT_EQ(CreateObject(*FindRow(kStatus),
                                   HeaderOf(MakeObject(kStatus, oid)), nullptr),
                      0);
        }
    }

    Lines Rows()
    {
        return mirror_.Rows("SELECT OID FROM TblDMStatus_Child_Obj");
    }
};

const std::string kTexts("a key\0/a/path\0", 14);
// clang-format off
const struct Taken
{
    const char *name;
    Bytes record;
    bool queued;
    bool publishes;
} kTaken[] = {
    {"dirty list", List(3, {1, 2}), true, true},
    {"create that claims more", Record(7, {5, 1}), true, true},
    {"smallest status", Record(4, {0, 16, 0, 0, 0}), true, true},
    {"destroy of one, with a word more", Record(8, {1, 1, 2}), true, true},
    {"destroy that claims two", Record(8, {2, 1}), true, true},
    {"destroy of several", List(8, {1, 2}), false, true},
    {"raw data", Record(1130, {24, 30}, kTexts), true, true},
    {"first reserved", Record(3400, {}), true, false},
    {"last reserved", Record(3499, {}), true, false},
    {"below the reserved", Record(3399, {}), false, false},
    {"above the reserved", Record(3500, {}), false, false},
    {"a worker's end", Record(1001, {}), false, false},
    {"from the bus", Record(65533, {7, 1, 40, 40}), false, false},
};
// clang-format on

TEST_F(Listener, QueuesWhatWorkersHandleAndPublishesReadinessLate)
{
    for (const Taken &test : kTaken)
    {
        SCOPED_TRACE(test.name);
        standin::Reset();
        gQdbReadyRetryPending = 1;
        DbusEventsEnabled = 0;
        Restart();
        // Without memory one event is lost.
        standin::SetFault("ZOAllocMem", 0, 1);
        GiveToListener(test.record);
        const int taken = test.queued || test.publishes ? 1 : 0;
        EXPECT_EQ(CountLog("failed to alloc memory for DataEventHeader "
                           "structure"),
                  taken);
        EXPECT_EQ(TakeQueued(), std::vector<Bytes>{});
        EXPECT_EQ(standin::CallCount("CfgSetAttributeInt"), 0U);
        // The next two try until readiness is published.
        standin::SetFault("CfgSetAttributeInt", 77, 1);
        const int published = test.publishes ? 1 : 0;
        const std::vector<Bytes> kept(test.queued ? 1 : 0, test.record);
        for (const int ready : {0, published, published})
        {
            GiveToListener(test.record);
            EXPECT_EQ(TakeQueued(), kept);
            EXPECT_EQ(gQdbReadyRetryPending, 1 - ready);
            EXPECT_EQ(DbusEventsEnabled, ready);
        }
        EXPECT_EQ(CountLog("QDVEventListener: CfgSetAttributeInt failed ret:77 "
                           "for Tarnu.Embedded.1#QuillonDB.1#IsQuillonDBReady"
                           "\n"),
                  published);
        EXPECT_EQ(standin::CallCount("CfgSetAttributeInt"),
                  test.publishes ? 2U : 0U);
        EXPECT_EQ(standin::IntegerAttribute(kReadyKey, -1),
                  test.publishes ? 1 : -1);
    }
    EXPECT_EQ(QDVEventListener(nullptr), 0);
}

// And is ready before: what goes is announced. A corrupt database is nothing
// that the Data Manager's thread tells of.
TEST_F(Listener, DestroysSeveralAtOnce)
{
    const std::string bunch = "Delete has come in bunch objcount =";
    const std::string invalid = "Invalid Obj Count in ObjList, notification "
                                "not processed pOL->objCount=";
    const Lines all = {"1", "2", "3"};
    // clang-format off
    const struct
    {
        const char *name;
        Bytes record;
        Lines left;
        Lines lines;
        int status = SQLITE_OK; // of every removal
    } cases[] = {
        {"two and a word more", Record(8, {2, 1, 3, 2}), {"2"}, {bunch + "2\n"}},
        {"unknown ones", List(8, {7, 8, 9}), all, {bunch + "3\n"}},
        {"more than the record holds", Record(8, {3, 1, 2}), all, {bunch + "3\n", invalid + "3\n"}},
        {"corrupt", List(8, {1, 2}), all, {bunch + "2\n"}, SQLITE_CORRUPT},
    };
    // clang-format on
    ChangeListener changes;
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        DbusEventsEnabled = 0;
        CreateRows({1, 2, 3});
        gQdbReadyRetryPending = 1;
        Restart();
        FailSteps("DELETE FROM ActiveOIDMapping", test.status,
                  test.status == SQLITE_OK ? 0 : kForever);
        GiveToListener(test.record);
        ClearSqliteFaults();
        EXPECT_EQ(Rows(), test.left);
        EXPECT_EQ(TakeQueued(), std::vector<Bytes>{});
        EXPECT_EQ(LinesWith({"bunch", "Invalid"}), test.lines);
        EXPECT_EQ(changes.TakeAll().size(), 3 - test.left.size());
    }
    EXPECT_NE(sem_trywait(&gSqliteCorruptSem), 0);
}

// In a process of its own: the gate never opens again.
TEST_F(Listener, DoesNothingOnceTheGateIsShut)
{
    const auto shutTheGate = [&]
    {
        CreateRows({1, 2});
        CaptureLog();
        std::atomic<bool> shut = false;
        std::thread closer;
        std::thread inside;
        {
            const MutexLock step(SqliteStepMutex);
            inside = std::thread(GiveToListener, List(8, {1, 2}));
            WaitForLog("Delete has come in bunch objcount =2");
            closer = std::thread(
                [&]
                {
                    ShutGate();
                    shut = true;
                });
            // It is shut when a record leaves no trace any more.
            EXPECT_TRUE(WaitUntil(
                []
                {
                    CaptureLog();
                    GiveToListener(Record(5, {}));
                    return LogLines().empty();
                }));
            EXPECT_FALSE(shut);
        }
        closer.join();
        EXPECT_EQ(Rows(), Lines{});
        inside.join();
        GiveToListener(List(7, {1}));
        EXPECT_EQ(TakeQueued(), std::vector<Bytes>{});
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            shutTheGate();
            _exit(HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace qdb::test
