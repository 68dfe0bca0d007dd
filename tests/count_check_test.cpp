// The count check: failed operations are repeated, and three tables are put
// right when they disagree with the Data Manager.

#include "events/queues/fail_queue.h"
#include "reconcile/count_check.h"
#include "tests/support/reload_fixture.h"

namespace qdb::test
{
namespace
{

constexpr uint16_t kProbe = 0x1B;
constexpr uint16_t kGpu = 0x220;
constexpr uint16_t kJob = 0xA03;
constexpr uint16_t kFan = 0x40;
constexpr uint32_t kBattery = 900;

// The keyed types, by a column that tells rows apart.
Bytes Keyed(uint16_t type, uint32_t oid, const std::string &key, int value = 1)
{
    const char *column = type == kStatus  ? "popStatus"
                         : type == kProbe ? "probeReading"
                                          : "DOH_ObjStatus";
    const char *keyColumn = type == kStatus ? "key" : "Key";
    return MakeObject(type, oid,
                      std::string(R"({")") + keyColumn + R"(": ")" + key +
                          R"(", ")" + column +
                          "\": " + Text(static_cast<uint32_t>(value)) + "}",
                      static_cast<uint8_t>(type == kGpu ? value : 0));
}

// Key and value of an object, or of a row as it was written.
struct Item
{
    uint32_t oid;
    std::string key;
    int value;
};
using Items = std::vector<Item>;

TEST_F(NcReload, CountCheckPutsThreeTablesRight)
{
    struct Case
    {
        const char *name;
        uint16_t type;
        Items objects;
        Items rows;
        std::string faulty; // statement that fails once
        Lines calls;
        const char *told = "";
    };
    const std::string clear = "delete from ActiveOIDMapping where ObjType";
    const std::string count = "SELECT count(*)";
    const std::string distinct = "SELECT count(distinct";
    // clang-format off
    const Case cases[] = {
        {"same", kStatus, {{11, "a", 1}, {12, "b", 2}}, {{11, "a", 1}, {12, "b", 2}}, "", {}},
        {"row missing", kStatus, {{11, "a", 1}, {12, "b", 2}}, {{12, "b", 9}}, "", {"Create 11", "Create 12"}},
        {"no objects", kStatus, {}, {{11, "a", 1}}, "", {}},
        {"one status differs", kStatus, {{11, "a", 1}, {12, "b", 2}}, {{11, "a", 1}, {12, "b", 3}}, "", {"Refresh 12"}},
        {"status above a byte", kStatus, {{11, "a", 0x101}}, {{11, "a", 0x101}}, "", {"Refresh 11"}},
        {"same key twice", kStatus, {{11, "a", 1}, {12, "a", 2}}, {{11, "a", 1}, {12, "a", 2}}, "", {"Create 11", "Create 12"}},
        {"status unread", kStatus, {{11, "a", 1}}, {{11, "a", 1}}, "select popStatus", {"Refresh 11"}, "pHCO->popStatus=1, dbPopStatus=255"},
        {"clear fails", kStatus, {{11, "a", 1}}, {}, clear, {}, "Could not removed from 1001 Table. Error: -1"},
        {"count fails", kStatus, {{11, "a", 1}}, {}, count, {}, "0x1001 CheckDMPopCountInDB failed!! \n"},
        {"distinct count fails", kStatus, {{11, "a", 1}}, {}, distinct, {}, "0x1001 CheckDMPopCountInDB failed!! \n"},
        {"battery's key differs", kProbe, {{11, "ab", 1}}, {{11, "a", 1}}, "", {"Refresh 11"}, "Found Key Mismatch for Battery Object So recreating !!!!\n"},
        {"battery's key goes on", kProbe, {{11, "a", 1}}, {{11, "ab", 1}}, "", {}},
        {"battery's key unread", kProbe, {{11, "ab", 1}}, {{11, "a", 1}}, "SELECT Key FROM Tblprobeobj", {}},
        {"battery missing", kProbe, {{11, "a", 1}}, {}, "", {"Create 11"}},
        {"same GPU", kGpu, {{11, "a", 1}}, {{11, "b", 2}}, "", {}, ":Object count matched with QDB and DM SKipping Loop to refresh/Recreate!! \n"},
        {"GPU missing", kGpu, {{11, "a", 1}, {12, "b", 1}}, {{11, "a", 1}}, "", {"Create 11", "Create 12"}},
    };
    // clang-format on
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        Clear();
        standin::ObjectSpec battery;
        battery.type = 0x5E;
        battery.oid = kBattery;
        battery.key = "Tarnu.Embedded.1#SubSystem.1#Battery";
        EXPECT_EQ(standin::CreateObject(battery, false), "");
        const Bytes parent = standin::ObjectBytes(kBattery);
        for (const Item &row : test.rows)
        {
            EXPECT_EQ(Create(Keyed(test.type, row.oid, row.key, row.value),
                             HeaderOf(parent)),
                      0);
        }
        for (const Item &object : test.objects)
        {
            Put(Keyed(test.type, object.oid, object.key, object.value),
                {kBattery});
        }
        Restart();
        if (!test.faulty.empty())
        {
            FailSteps(test.faulty, SQLITE_ERROR, 1);
        }
        CheckDMObjCountandReCreateEntries();
        EXPECT_EQ(Calls(), test.calls);
        if (test.objects.empty())
        {
            EXPECT_EQ(mirror_.Value("SELECT count(*) FROM ActiveOIDMapping"),
                      std::to_string(test.rows.size()));
        }
        if (*test.told != '\0')
        {
            EXPECT_EQ(CountLog(test.told), 1) << test.told;
        }
    }
}

TEST_F(NcReload, CountCheckRecreatesAndRefreshesRows)
{
    // A table with one row too many: what the Data Manager has stays, anew.
    for (const uint32_t oid : {11U, 12U, 13U})
    {
        MakeRow(Keyed(kStatus, oid, "k" + Text(oid), 5));
    }
    Put(Keyed(kStatus, 11, "k11", 6));
    Put(Keyed(kStatus, 12, "k12", 6));
    Announced();
    EXPECT_EQ(CheckDMObjCountandReCreateEntries(), 0);
    const std::string rows =
        "SELECT OID, popStatus FROM TblDMStatus_Child_Obj ORDER BY OID";
    EXPECT_EQ(mirror_.Rows(rows), (Lines{"11|6", "12|6"}));
    EXPECT_EQ(Kinds(), (Lines{"Added", "Added"}));

    // An object that has gone ends the walk, the others wait.
    Put(Keyed(kStatus, 13, "k13", 6));
    standin::SetFault("ZOILGetObjByOID", 0, 1, 1);
    CheckDMObjCountandReCreateEntries();
    EXPECT_EQ(mirror_.Rows(rows), Lines{"11|6"});
    CheckDMObjCountandReCreateEntries();
    EXPECT_EQ(mirror_.Rows(rows), (Lines{"11|6", "12|6", "13|6"}));

    // A list that can't be had stops only its own row of the check.
    Put(Keyed(kGpu, 9, "g"));
    standin::SetFault("ZOILListChildOIDByType", 0, 1);
    EXPECT_EQ(CheckDMObjCountandReCreateEntries(), 0);
    EXPECT_EQ(Count("TblGPUInventoryObj", 9), "1");

    // A row that is busy is waited for, and one that stays unreadable is
    // fetched again each time.
    Put(Keyed(kStatus, 11, "k11", 7));
    Restart();
    FailSteps("UPDATE \"TblDMStatus", SQLITE_BUSY, 1);
    CheckDMObjCountandReCreateEntries();
    EXPECT_EQ(mirror_.Rows(rows), (Lines{"11|7", "12|6", "13|6"}));
    Put(Broken(Keyed(kStatus, 12, "k12", 8), 0x14));
    Restart();
    const uint64_t fetches = standin::CallCount("ZOILGetObjByOID");
    CheckDMObjCountandReCreateEntries();
    EXPECT_GE(standin::CallCount("ZOILGetObjByOID") - fetches, 100u);
    EXPECT_EQ(SleepCount(), 0);
}

// A drain takes all but the newest, in the order in which they failed.
TEST_F(NcReload, DrainRepeatsWhatFailed)
{
    const auto keep = [](uint32_t oid, FailedOperation operation, int type)
    {
        QdbFailenQueue(gFailQueue, oid, operation, QdbFailObjTypeIndex(type));
    };
    const auto job = [](uint32_t oid, int percent)
    {
        return MakeObject(kJob, oid,
                          R"({"jobInfo_DOT_percentComplete": )" +
                              std::to_string(percent) + "}");
    };
    const auto fan = [](uint32_t oid)
    {
        return MakeObject(kFan, oid);
    };
    MakeRow(job(21, 10));
    Put(job(21, 20));
    MakeRow(fan(2));
    for (const uint32_t oid : {2U, 3U, 4U, 6U})
    {
        Put(fan(oid));
    }
    Put(Keyed(kStatus, 5, "k"));
    ForgetStatements();
    Restart();
    const auto drain = []
    {
        Restart();
        CheckDMObjCountandReCreateEntries();
    };
    keep(21, FailedOperation::Refresh, 0); // alone
    drain();
    EXPECT_EQ(Calls(), Lines{"Create 5"}); // the check's own
    keep(2, FailedOperation::Delete, kFan);
    keep(3, FailedOperation::Create, kFan);
    keep(4, FailedOperation::RefreshFailure, kFan);
    keep(5, FailedOperation::RefreshFailure, kFan); // of another type by now
    keep(4, FailedOperation::Create, 0);            // of no type
    keep(77, FailedOperation::Create, kFan);        // gone
    keep(6, static_cast<FailedOperation>(4), kFan);
    keep(6, FailedOperation::Create, kFan); // the newest
    drain();
    EXPECT_EQ(Calls(),
              (Lines{"Refresh 21", "Delete 2", "Create 3", "Create 4"}));
    EXPECT_EQ(CountLog("DM object not found for OID=0x4d\n"), 1);
    EXPECT_EQ(mirror_.Rows("SELECT OID FROM TblFanExtObj ORDER BY OID"),
              (Lines{"3", "4"}));
    keep(6, FailedOperation::Create, kFan);
    drain();
    EXPECT_EQ(Count("TblFanExtObj", 6), "1");
    // A repetition that fails for the same reason waits for the pass after.
    Put(fan(8));
    keep(8, FailedOperation::Create, kFan);
    Restart();
    FailSteps(kMapping, SQLITE_BUSY, 200);
    CheckDMObjCountandReCreateEntries();
    EXPECT_EQ(gFailQueue.load()->count, 1);
    keep(8, FailedOperation::Create, kFan);
    drain();
    drain();
    EXPECT_EQ(Count("TblFanExtObj", 8), "1");
}

} // namespace
} // namespace qdb::test
