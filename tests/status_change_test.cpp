// Status changes on their way to the row, the order of the NC thread's passes,
// and its reloads of what is compared with a copy: without memory, and of
// devices that are odd. What becomes of others is recorded in the stream.

#include "config/key_reload.h"
#include "core/cancel.h"
#include "core/sleep.h"
#include "events/status_change.h"
#include "reconcile/key_reload.h"
#include "reconcile/nc_thread.h"
#include "tests/support/reload_fixture.h"

namespace qdb::test
{
namespace
{

Bytes Device(uint16_t type, uint32_t oid, const std::string &name)
{
    return MakeObject(type, oid, R"({"productName": ")" + name + R"("})");
}

// The copy that can't be made ends the reload, and is made the next time.
TEST_F(NcReload, EndsWithoutMemory)
{
    const Bytes status = Status(7, "x", 1);
    const Bytes record =
        Record(4, {0}, std::string(status.begin(), status.end()));
    const struct
    {
        const char *name;
        std::function<int()> act;
        const char *line; // behind which there is no memory
        const char *call; // that gets one object
        uint64_t calls;   // until the end
    } kCases[] = {
        {"key", ReLoadKeyBasedNCObjects, "key=91||", "ZOILGetObjByKey", 1},
        {"attributes", ReLoadCfgKeyBasedNCObjects,
         "path=", "CfgIntAttribute_get_object", 1},
        {"devices", ObjTypeBasedNCObjects, "No previous record",
         "ZOILGetObjByOID", 1},
        {"status change",
         [&]
         {
             return ObjectNotificationStChg(EventOf(record));
         },
         "ObjectNotificationStChg: Entry", "ZOILGetObjByKey", 0},
    };
    MakeRow(status);
    PutObject(0x91, 5,
              R"({"Key": "91||System.Embedded.1", "HostName": "new"})");
    for (const char *key : {"Tarnu.Embedded.1#SerialCapture.1#SerialDataSize",
                            "System.Embedded.1#ServerOS.1#ServerPoweredOnTime"})
    {
        PutAttribute("CfgIntAttribute", key);
    }
    Put(Device(0xEB, 11, "a"));
    Put(Device(0xEB, 12, "b"));
    Put(Device(0xEC, 13, "u"));
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        IgnoreSqlite(); // keeping its calls takes memory
        const uint64_t before = standin::CallCount(c.call);
        {
            const LineHook hook(c.line,
                                [](int)
                                {
                                    tNoMemory = true;
                                });
            const int result = c.act();
            tNoMemory = false;
            EXPECT_EQ(result, 272);
        }
        EXPECT_EQ(standin::CallCount(c.call) - before, c.calls);
        Restart();
        EXPECT_NE(c.act(), 272);
        EXPECT_NE(Calls(), Lines{});
    }
}

// Its size is kept in 16 bits, so that it differs from its own copy.
TEST_F(NcReload, ReplacesHugeDevicesEachTime)
{
    PutShort(Device(0xEC, 5, "a"), 0x10000 + 40);
    EXPECT_EQ(ObjTypeBasedNCObjects(), 0);
    EXPECT_EQ(ObjTypeBasedNCObjects(), 0);
    EXPECT_EQ(Calls(), (Lines{"Create 5", "Delete 5", "Create 5"}));
    EXPECT_EQ(CountLog("Data size mismatch. Recreate entry.\n"), 1);
}

TEST_F(NcReload, TriesUnreadableDevicesAsTheyAre)
{
    Put(Broken(Device(0xEC, 6, "u")));
    EXPECT_EQ(ObjTypeBasedNCObjects(), -1);
    EXPECT_EQ(Calls(), Lines(100, "Create 6"));
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
TEST_F(NcReload, LeavesThePassesInOrder)
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
