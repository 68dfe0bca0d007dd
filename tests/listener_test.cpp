// The Data Manager's callback: what it queues, what it carries out at once, and
// what it refuses.

#include "core/gate.h"
#include "core/lock.h"
#include "core/ready.h"
#include "core/state.h"
#include "events/listener.h"
#include "objects/handlers.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"
#include "tests/support/change_listener.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace qdb::test
{
namespace
{

constexpr uint16_t kStatus = 0x1001;
constexpr char kFailedAllocation[] =
    "failed to alloc memory for DataEventHeader structure";

// A status change with an object of this size, in a record that has room for
// `room` bytes of it.
Bytes StatusRecord(uint32_t objSize, size_t room)
{
    Words words = {0xFFFFFFFF, objSize};
    words.resize(1 + room / 4);
    return Record(4, words);
}

int Queued()
{
    int posts = 0;
    sem_getvalue(&gQdbEventSem, &posts);
    EXPECT_EQ(posts, QdbEventQSize.load());
    return posts;
}

// Takes all records off the queue.
std::vector<Bytes> TakeAll()
{
    std::vector<Bytes> records;
    while (Queued() > 0)
    {
        const EventNodePtr node(QdbdeQueue(gQdbEventQueue));
        const auto *bytes = reinterpret_cast<const uint8_t *>(node->data);
        records.emplace_back(bytes, bytes + node->data->evtSize);
    }
    return records;
}

void Call(Bytes record)
{
    EXPECT_EQ(
        QDVEventListener(reinterpret_cast<DataEventHeader *>(record.data())),
        0);
}

class Listener : public DbTest
{
  protected:
    void CreateRow(uint32_t oid)
    {
        EXPECT_EQ(CreateObject(*FindRow(kStatus),
                               HeaderOf(MakeObject(kStatus, oid)), nullptr),
                  0);
    }

    Lines Rows()
    {
        return mirror_.Rows("SELECT OID FROM TblDMStatus_Child_Obj");
    }
};

TEST_F(Listener, QueuesWhatWorkersHandle)
{
    const std::string texts("a key\0/a/path\0", 14);
    // clang-format off
    const struct
    {
        const char *name;
        Bytes record;
        bool queued;
    } cases[] = {
        {"dirty list", List(3, {1, 2}), true},
        {"empty list", List(7, {}), true},
        {"list that claims more", Record(3, {5, 1}), true},
        {"status", StatusRecord(20, 20), true},
        {"smallest status", StatusRecord(16, 16), true},
        {"destroy of one", List(8, {1}), true},
        {"destroy of none", List(8, {}), true},
        {"destroy of one, with a word more", Record(8, {1, 1, 2}), true},
        {"destroy that claims two", Record(8, {2, 1}), true},
        {"raw data", Record(1130, {24, 30}, texts), true},
        {"first reserved", Record(3400, {}), true},
        {"last reserved", Record(3499, {}), true},
        {"below the reserved", Record(3399, {}), false},
        {"above the reserved", Record(3500, {}), false},
        {"unknown", Record(5, {1, 2}), false},
        {"a worker's end", Record(1001, {}), false},
        {"from the bus", Record(65533, {7, 1, 40, 40}), false},
        {"none", Record(0, {}), false},
    };
    // clang-format on
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        Call(test.record);
        EXPECT_EQ(TakeAll(), test.queued ? std::vector<Bytes>{test.record}
                                         : std::vector<Bytes>{});
        EXPECT_EQ(standin::CallCount("ZOAllocMem"), test.queued ? 1U : 0U);
        standin::Reset();
    }
    EXPECT_EQ(QDVEventListener(nullptr), 0);
    EXPECT_EQ(Queued(), 0);
}

TEST_F(Listener, RefusesWhatIsTooShort)
{
    const std::string texts("key\0path", 8); // the second never ends
    const std::pair<const char *, Bytes> cases[] = {
        {"dirty list without count", Record(3, {1}, "", 19)},
        {"create without count", Record(7, {})},
        {"destroy without count", Record(8, {1}, "", 17)},
        {"status without object", Record(4, {0})},
        {"status without the object's size", Record(4, {0, 16}, "", 23)},
        {"status of an object below a header", StatusRecord(15, 20)},
        {"status of an object of no size", StatusRecord(0, 20)},
        {"status of an object that is longer", StatusRecord(21, 20)},
        {"status of the greatest object", StatusRecord(0xFFFFFFFF, 20)},
        {"raw data without path", Record(1130, {24})},
        {"raw data, path cut off", Record(1130, {16, 16}, "", 23)},
        {"raw data, key at the end", Record(1130, {32, 24}, texts)},
        {"raw data, key behind the end", Record(1130, {99, 24}, texts)},
        {"raw data, path behind the end",
         Record(1130, {24, 0xFFFFFFF0}, texts)},
        {"raw data, endless path", Record(1130, {24, 28}, texts)},
        {"raw data, endless key", Record(1130, {28, 24}, texts)},
        {"reserved without header", Record(3450, {}, "", 15)},
        {"reserved of no size", Record(3400, {}, "", 0)},
    };
    gQdbReadyRetryPending = 1;
    for (const auto &[name, record] : cases)
    {
        SCOPED_TRACE(name);
        DataEventHeader header = {};
        std::memcpy(&header, record.data(), sizeof(header));
        Restart(2);
        Call(record);
        EXPECT_EQ(LogLines(), Lines{"event dropped: type: " +
                                    std::to_string(header.evtType) +
                                    " size: " + std::to_string(header.evtSize) +
                                    " is too short or badly formed\n"});
        EXPECT_EQ(Queued(), 0);
    }
    EXPECT_EQ(standin::CallCount("CfgSetAttributeInt"), 0U);
}

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
    } cases[] = {
        {"two and a word more", Record(8, {2, 1, 3, 2}), {"2"}, {bunch + "2\n"}},
        {"unknown ones", List(8, {7, 8, 9}), all, {bunch + "3\n"}},
        {"more than the record holds", Record(8, {3, 1, 2}), all, {bunch + "3\n", invalid + "3\n"}},
        {"half an OID more", Record(8, {2, 1, 2}, "", 27), all, {bunch + "2\n", invalid + "2\n"}},
    };
    // clang-format on
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        for (const uint32_t oid : {1u, 2u, 3u})
        {
            CreateRow(oid);
        }
        Restart();
        Call(test.record);
        EXPECT_EQ(Rows(), test.left);
        EXPECT_EQ(Queued(), 0);
        EXPECT_EQ(LinesWith({"bunch", "Invalid"}), test.lines);
    }
}

TEST_F(Listener, KeepsCorruptionOfABunchToItself)
{
    CreateRow(1);
    CreateRow(2);
    FailSteps("DELETE FROM ActiveOIDMapping", SQLITE_CORRUPT, kForever);
    Call(List(8, {1, 2}));
    int posts = -1;
    sem_getvalue(&gSqliteCorruptSem, &posts);
    EXPECT_EQ(posts, 0);
    EXPECT_EQ(Rows(), (Lines{"1", "2"}));
}

TEST_F(Listener, LosesOneEventWithoutMemory)
{
    gQdbReadyRetryPending = 1;
    for (const Bytes &record :
         {List(3, {1}), List(8, {1, 2}),
          Record(1130, {24, 24}, std::string("a\0", 2)), Record(3450, {})})
    {
        Restart(1);
        standin::SetFault("ZOAllocMem", 0, 1);
        Call(record);
        EXPECT_EQ(LogLines(), Lines{kFailedAllocation});
        EXPECT_EQ(Queued(), 0);
        EXPECT_EQ(standin::CallCount("CfgSetAttributeInt"), 0U);
    }
    Call(List(3, {1}));
    EXPECT_EQ(TakeAll().size(), 1U);
}

TEST_F(Listener, PublishesReadinessLate)
{
    const struct
    {
        const char *name;
        Bytes record;
        bool tries;
    } cases[] = {
        {"dirty list", List(3, {1}), true},
        {"status", StatusRecord(16, 16), true},
        {"create", List(7, {1}), true},
        {"destroy", List(8, {1}), true},
        {"destroy of several", List(8, {1, 2}), true},
        {"raw data", Record(1130, {24, 24}, std::string("a\0", 2)), true},
        {"reserved", Record(3450, {}), false},
        {"unknown", Record(5, {}), false},
    };
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        standin::Reset();
        gQdbReadyRetryPending = 1;
        DbusEventsEnabled = 0;
        standin::SetFault("CfgSetAttributeInt", 77, 1);
        Restart();
        Call(test.record);
        EXPECT_EQ(CountLog("QDVEventListener: CfgSetAttributeInt failed ret:77 "
                           "for Tarnu.Embedded.1#QuillonDB.1#IsQuillonDBReady"
                           "\n"),
                  test.tries ? 1 : 0);
        EXPECT_EQ(gQdbReadyRetryPending, 1);
        EXPECT_EQ(DbusEventsEnabled, 0);

        Call(test.record);
        Call(test.record);
        EXPECT_EQ(CountLog("QDB is ready. Enable sending Dbus events!! \n"),
                  test.tries ? 1 : 0);
        EXPECT_EQ(standin::CallCount("CfgSetAttributeInt"),
                  test.tries ? 2U : 0U);
        EXPECT_EQ(gQdbReadyRetryPending, test.tries ? 0 : 1);
        EXPECT_EQ(DbusEventsEnabled, test.tries ? 1 : 0);
        EXPECT_EQ(standin::IntegerAttribute(kReadyKey, -1),
                  test.tries ? 1 : -1);
        TakeAll();
    }
}

TEST_F(Listener, IsReadyBeforeADestroyOfSeveral)
{
    const ChangeListener changes;
    CreateRow(1);
    CreateRow(2);
    gQdbReadyRetryPending = 1;
    Call(List(8, {1, 2}));
    const std::vector<Change> seen = changes.WaitFor(2);
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_EQ(seen[1].member, "Vexo_qdb_Resource_Removed");
}

TEST_F(Listener, Attaches)
{
    const std::tuple<const char *, int, int, const char *> cases[] = {
        {"ZOILAddEventListener", 77, 77,
         "ZOILAddEventListener failed: status: 77"},
        {"ZOILIsDataManagerReady", 0, 0, "Client attachment failed."},
        {"ZOILIsDataManagerReady", 2, 0, "Client attachment failed."},
    };
    for (const auto &[call, status, result, line] : cases)
    {
        SCOPED_TRACE(status);
        standin::Reset();
        standin::SetFault(call, status, 1);
        CaptureLog(8);
        EXPECT_EQ(QDVEventListenerAttach(), result);
        EXPECT_EQ(LogLines().back(), line);
        ZOILRemoveEventListener(QDVEventListener);
    }
}

// Runs the present test again in a process of its own, with the variable set.
// Returns the exit status; what the process prints goes to standard error.
int RunAlone(const char *variable)
{
    const ::testing::TestInfo *test =
        ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter = std::string("--gtest_filter=") +
                               test->test_suite_name() + "." + test->name();
    const char *arguments[] = {"/proc/self/exe", filter.c_str(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    setenv(variable, "1", 1);
    pid_t child = -1;
    EXPECT_EQ(posix_spawn(&child, arguments[0], &actions, nullptr,
                          const_cast<char **>(arguments), environ),
              0);
    unsetenv(variable);
    posix_spawn_file_actions_destroy(&actions);
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The gate never opens again in a process.
TEST_F(Listener, DoesNothingOnceTheGateIsShut)
{
    constexpr char kAlone[] = "QDB_TEST_GATE";
    if (std::getenv(kAlone) == nullptr)
    {
        EXPECT_EQ(RunAlone(kAlone), 0);
        return;
    }
    CreateRow(1);
    CreateRow(2);
    CaptureLog();
    std::atomic<bool> shut = false;
    std::thread closer;
    std::thread inside;
    {
        const MutexLock step(SqliteStepMutex);
        inside = std::thread(
            []
            {
                Call(List(8, {1, 2}));
            });
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
                Call(Record(5, {}));
                return LogLines().empty();
            }));
        EXPECT_FALSE(shut);
    }
    closer.join();
    EXPECT_EQ(Rows(), Lines{});
    inside.join();
    CaptureLog();
    Call(List(7, {1}));
    Call(Record(12, {}));
    EXPECT_EQ(Queued(), 0);
    EXPECT_EQ(LogLines(), Lines{});
}

} // namespace
} // namespace qdb::test
