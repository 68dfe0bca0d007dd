// Status changes on their way to the row, and the order of the NC thread's
// passes. What becomes of single ones is recorded in the stream.

#include "core/cancel.h"
#include "core/sleep.h"
#include "events/status_change.h"
#include "reconcile/nc_thread.h"
#include "tests/support/reload_fixture.h"

namespace qdb::test
{
namespace
{

using StatusChanges = NcReload;

TEST_F(StatusChanges, EndsWithoutMemory)
{
    const Bytes object = Status(7, "x", 1);
    const Bytes record =
        Record(4, {0}, std::string(object.begin(), object.end()));
    Restart();
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
