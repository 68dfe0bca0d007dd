// Status changes, and the order of the NC thread's passes.

#include "core/cancel.h"
#include "core/sleep.h"
#include "core/status.h"
#include "events/status_change.h"
#include "reconcile/nc_thread.h"
#include "tests/support/config_bytes.h"
#include "tests/support/reload_fixture.h"

namespace qdb::test
{
namespace
{

// The record of an object.
Bytes Changed(const Bytes &object, size_t cut = 0)
{
    std::string text(object.begin(), object.end());
    text.resize(text.size() - cut);
    return Record(4, {0}, text);
}

using StatusChanges = NcReload;

TEST_F(StatusChanges, RunsAReloadOrRefreshesRows)
{
    const Bytes status = Status(7, "new", 3);
    const Bytes nvme =
        MakeObject(0x31B, 7, R"({"protocol": 256, "attributes": 2})");
    const auto object = [](uint16_t type)
    {
        return MakeObject(type, 7);
    };
    const std::string tag = "DATA_EVENT_OBJ_STATUS_CHG calling ";
    const struct
    {
        const char *name;
        Bytes object;
        uint32_t keyed;            // OID of the keyed object; 0: none
        std::vector<Fault> faults; // of the preparation of updates
        int result;
        size_t refreshes;
        Lines lines; // of the dispatch and the reloads
    } kCases[] = {
        // clang-format off
        {"memory", object(0xE1), 0, {}, 0, 0, {tag + "ReLoadNCObjects for OID:7\n", "Entering ReLoadNCObjects \n"}},
        {"FRU", object(0x42), 0, {}, 0, 0, {tag + "ReLoadNCObjects for OID:7\n", "Entering ReLoadFRUNCObjects \n"}},
        {"bluetooth", object(0xEB), 0, {}, 0, 0, {tag + "ObjTypeBasedNCObjects for OID:7\n", "ObjTypeBasedNCObjects failed with status 0\n"}},
        {"keyed", object(0x91), 7, {{1, 1}}, -1, 1, {tag + "ReLoadKeyBasedNCObjects for OID:7\n", "Entering ReLoadKeyBasedNCObjects \n"}},
        {"keyed by OID alone", status, 7, {{1, 1}}, -1, 1, {tag + "ReLoadKeyBasedNCObjects for OID:7\n", "Entering ReLoadKeyBasedNCObjects \n"}},
        {"another", status, 8, {}, 0, 1, {"Request:DATA_EVENT_OBJ_STATUS_CHG Update: OID: 7"}},
        {"no keyed object", status, 0, {}, 0, 0, {"ObjectNotificationStChg: pDOHkey is NULL\n"}},
        {"two rows", nvme, 8, {}, 0, 2, {"Request:DATA_EVENT_OBJ_STATUS_CHG Update: OID: 7", "Request:DATA_EVENT_OBJ_STATUS_CHG Update: OID: 7"}},
        {"first of two fails", nvme, 8, {{1, 1}}, -1, 1, {"Request:DATA_EVENT_OBJ_STATUS_CHG Update: OID: 7"}},
        {"corrupt", status, 8, {{11, 1}}, 11, 1, {"Request:DATA_EVENT_OBJ_STATUS_CHG Update: OID: 7"}},
        {"unknown type", With(status, kTypeWord, 0x9999), 8, {}, 0, 0, {}},
        // clang-format on
    };
    for (const auto &test : kCases)
    {
        SCOPED_TRACE(test.name);
        Clear();
        if (test.keyed != 0)
        {
            static int pass = 0; // each time another object
            PutObject(0x91, test.keyed,
                      R"({"Key": "91||System.Embedded.1", "HostName": ")" +
                          std::to_string(++pass) + R"("})");
        }
        Restart();
        FailPrepares("UPDATE ", test.faults);
        EXPECT_EQ(ObjectNotificationStChg(EventOf(Changed(test.object))),
                  test.result);
        EXPECT_EQ(LinesWith({"DATA_EVENT", "pDOHkey", "Entering Re",
                             "failed with status"}),
                  test.lines);
        EXPECT_EQ(Calls(), Lines(test.refreshes, "Refresh 7"));
    }
}

TEST_F(StatusChanges, RefreshesFromTheRecord)
{
    const struct
    {
        const char *name;
        std::vector<Fault> faults;
        int result;
        int sleeps;
        const char *row;
    } kCases[] = {
        {"at once", {}, 0, 0, "new"},
        {"busy", {{5, 1}, {6, 98}}, 0, 99, "new"},
        {"unreadable for ever", {{8216, 100}}, -1, 0, "old"},
    };
    for (const auto &test : kCases)
    {
        SCOPED_TRACE(test.name);
        Clear();
        PutObject(0x91, 8, R"({"Key": "91||System.Embedded.1"})");
        MakeRow(Status(7, "old", 1));
        Announced();
        ForgetStatements();
        Restart();
        FailPrepares("UPDATE Tbl", test.faults);
        EXPECT_EQ(
            ObjectNotificationStChg(EventOf(Changed(Status(7, "new", 2)))),
            test.result);
        EXPECT_EQ(SleptMicroseconds(), test.sleeps * 110000LL);
        EXPECT_EQ(mirror_.Value("SELECT popName FROM TblDMStatus_Child_Obj"),
                  test.row);
        EXPECT_EQ(Announced().size(), test.result == 0 ? 1U : 0U);
    }
}

TEST_F(StatusChanges, RefusesWhatIsNoObject)
{
    const Bytes object = Status(7, "x", 1);
    const std::pair<const char *, Bytes> kCases[] = {
        {"nothing behind the head", Record(4, {})},
        {"no object", Record(4, {0})},
        {"cut off", Changed(object, 1)},
        {"too small", Changed(With(object, kSizeWord, 15))},
        {"too large", Changed(With(object, kSizeWord, 0xFFFFFFF0))},
    };
    for (const auto &[name, bytes] : kCases)
    {
        SCOPED_TRACE(name);
        Restart(2);
        EXPECT_EQ(ObjectNotificationStChg(EventOf(bytes)), 2);
        EXPECT_EQ(LogLines(), Lines{"event dropped: type: 4 size: " +
                                    std::to_string(bytes.size()) +
                                    " is too short or badly formed\n"});
    }
    Restart();
    EXPECT_EQ(ObjectNotificationStChg(nullptr), 2);
    Restart();
    const Bytes record = Changed(object);
    tNoMemory = true;
    EXPECT_EQ(ObjectNotificationStChg(EventOf(record)), 272);
    tNoMemory = false;
    EXPECT_EQ(LogLines().back(), "ObjectNotificationStChg: pDOH NO memory\n");
}

// From the Data Manager by a worker to the row; a corrupt database ends the
// service from here, whatever the reload.
TEST(StatusChange, ComesFromTheDataManager)
{
    Mirror mirror({.threads = true});
    Restart();
    PutObject(0x91, 8, R"({"Key": "91||System.Embedded.1"})");
    PutObject(kStatus, 7, "{}", true);
    PutObject(0xE1, 9, R"({"Key": "DIMM.A1"})");
    mirror.Settle();
    MakeRow(MakeObject(0xE1, 9, R"({"Key": "A1"})"));
    FailSteps("DELETE FROM ActiveOIDMapping", SQLITE_CORRUPT, 2);
    EXPECT_EQ(standin::SetStatus(7, 5), "");
    EXPECT_EQ(standin::SetStatus(9, 5), "");
    mirror.Settle();
    EXPECT_EQ(mirror.Rows("SELECT OID, DOH_ObjStatus FROM "
                          "TblDMStatus_Child_Obj"),
              Lines{"7|5"});
    EXPECT_EQ(sem_trywait(&gSqliteCorruptSem), 0);
    ClearSqliteFaults();
    RestoreSleeps();
}

std::atomic<int> gTurns = 0;

// The service becomes ready in the first pause. Ends the thread in the last
// turn of its second one, after which it still runs the first reload.
void CountTurn(unsigned microseconds)
{
    EXPECT_EQ(microseconds, 5000U);
    DbusEventsEnabled = 1;
    if (++gTurns == 2000)
    {
        SetCancelNCThread();
    }
}

// The only test of the thread: it can be told to end once in a process's life.
TEST_F(StatusChanges, LeavesThePassesInOrder)
{
    PutObject(0xE1, 7, R"({"Key": "DIMM.A1"})");
    MakeRow(MakeObject(0xE1, 7, R"({"Key": "A1"})"));
    PutObject(0xEB, 8);
    ForgetStatements();
    Restart();
    SetSleepFunction(CountTurn);
    DbusEventsEnabled = 0;
    FailSteps("DELETE FROM ActiveOIDMapping", SQLITE_CORRUPT, 2);
    FailSteps(kMapping, SQLITE_CORRUPT, 1);
    std::thread thread(handle_QuillonDB_NC_Event_Request, nullptr);
    thread.join();
    EXPECT_EQ(gTurns, 2000);
    const Lines texts = {"Entering Re", "Entering Check", "Objects failed with",
                         "sempost",     "_Request",       "Canceled"};
    const Lines entry = {"handle_QuillonDB_NC_Event_Request entry\n"};
    const Lines memory = {"Entering ReLoadNCObjects \n"};
    const Lines others = {
        "Entering ReLoadFRUNCObjects \n", "Entering ReLoadKeyBasedNCObjects \n",
        "ReLoadKeyBasedNCObjects failed with status 256\n",
        "Entering ReLoadCfgKeyBasedNCObjects\n",
        "ReLoadCfgKeyBasedNCObjects failed with status 256\n"};
    const Lines end = {"Canceled [CheckCancelNCThread] \n",
                       "Exit [handle_QuillonDB_NC_Event_Request] \n"};
    const std::string pass = "handle_QuillonDB_NC_Event_Request end of loop \n";
    const Lines first =
        memory + Lines{"ReLoadNCObjects failed with status 11\n"} + others +
        Lines{"ObjTypeBasedNCObjects failed with status 11\n",
              "sempost issued 11\n", pass};
    const Lines second =
        memory + others +
        Lines{"ObjTypeBasedNCObjects failed with status 0\n",
              "Entering CheckDMObjCountandReCreateEntries \n", pass};
    EXPECT_EQ(LinesWith(texts), entry + first + second + memory + end);
    int posts = 0;
    sem_getvalue(&gSqliteCorruptSem, &posts);
    EXPECT_EQ(posts, 1);
    // Told to end, it still runs one reload to its end.
    Restart();
    handle_QuillonDB_NC_Event_Request(nullptr);
    EXPECT_EQ(LinesWith(texts), entry + memory + end);
}

} // namespace
} // namespace qdb::test
