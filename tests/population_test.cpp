// Filling the tables from what the Data Manager and the configuration manager
// hold.

#include "core/state.h"
#include "objects/catalogue.h"
#include "publish/change_signal.h"
#include "reconcile/population.h"
#include "tests/support/change_listener.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>

namespace qdb::test
{
namespace
{

constexpr uint16_t kStatus = 0x1001;
constexpr uint16_t kRoot = 0x900;
constexpr char kMapping[] = "insert into ActiveOIDMapping";
constexpr char kSkipping[] = "Skipping legacy DM Event for ObjType=0x4051!!\n";

class Population : public DbTest
{
  protected:
    // One or two objects of several types, and two attributes.
    static void Fill()
    {
        standin::PutAttribute("CfgIntAttribute", "A.1#B.1#C", nullptr, 50);
        standin::PutAttribute("CfgPasswdAttribute", "A.1#B.1#D", nullptr, 51);
        PutObject(kStatus, 12);
        PutObject(kStatus, 11);
        PutObject(0x31B, 21, R"({"protocol": 64})");
        PutObject(0x31B, 22, R"({"protocol": 32})"); // a hard disk
        PutObject(0x45, 31, R"({"slotType": 1})");
        PutObject(0xE1, 41);
    }

    Lines Mapped()
    {
        return mirror_.Rows("SELECT OID FROM ActiveOIDMapping ORDER BY 1");
    }
};

TEST_F(Population, FillsAllTablesInSilence)
{
    const ChangeListener changes;
    Fill();
    EXPECT_EQ(OnLoadObjectsCreation(), 0);
    EXPECT_EQ(Mapped(), (Lines{"11", "12", "21", "31", "41", "50", "51"}));
    const Lines tables = {"TblDMStatus_Child_Obj", "TblRAID_PDSmartData_NVMe",
                          "TblEmptySlotObj",       "TblMemoryInfo",
                          "TblIntAttribute",       "TblPasswdAttribute"};
    for (const std::string &table : tables)
    {
        EXPECT_EQ(mirror_.Value("SELECT count(*) FROM " + table),
                  table == tables[0] ? "2" : "1")
            << table;
    }
    EXPECT_EQ(mirror_.Value("SELECT ParentObjectKey FROM TblIntAttribute"),
              "A.1#B.1");
    // The catalogue's order, which isn't that of the types.
    Lines created;
    for (const std::string &line : LogLines())
    {
        const size_t at = line.find(" CreateObj_");
        const size_t end = line.find(" Entry for OID: ");
        if (at != std::string::npos && end != std::string::npos)
        {
            created.push_back(line.substr(at + 11, end - at - 11) +
                              line.substr(end + 15));
        }
    }
    EXPECT_EQ(created,
              (Lines{"1001 11", "1001 12", "31B_RAID_PDSmartData_NVMe 21",
                     "4051 50", "4054 51", "45_EmptySlotObj 31", "E1 41"}));
    // Objects of two-row types count twice.
    EXPECT_EQ(CountLog("OnLoadObjectsCreation total objects created: 9 \n"), 1);
    EXPECT_EQ(CountLog("Calling OnLoadConfigObjectsCreation(Cfg"), 4);
    DbusEventsEnabled = 1;
    ChangeJsonAdded("end");
    ASSERT_EQ(changes.WaitFor(1).size(), 1U);
    EXPECT_EQ(changes.Changes()[0].json, "end");
}

TEST_F(Population, GoesOnBehindWhatIsMissing)
{
    struct Case
    {
        const char *name;
        const char *call; // of the platform, that fails once
        int skip;
        int result;
        Lines mapped;
        const char *line;
    };
    // clang-format off
    const Case cases[] = {
        {"groups", "client_get_objects", 0, 256, {}, "Objects not found: CfgGroup 1\n"},
        {"an interface", "client_get_objects", 1, 0, {"11", "12", "21", "31", "41", "51"}, "OnLoadConfigObjectsCreation: Returned error c_retval= 0x00000100\n"},
        {"list of the first type", "ZOILListChildOIDByType", 0, 256, {"21", "31", "41", "50", "51"}, "total objects created: 7 \n"},
        {"list of the last type", "ZOILListChildOIDByType", 156, 256, {"11", "12", "21", "31", "41", "50", "51"}, "total objects created: 9 \n"},
        {"first object", "ZOILGetObjByOID", 0, 256, {"12", "21", "31", "41", "50", "51"}, "total objects created: 8 \n"},
        {"parents", "ZOILListParentOID", 0, 0, {"11", "12", "21", "31", "41", "50", "51"}, "total objects created: 9 \n"},
    };
    // clang-format on
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        standin::Reset();
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        Fill();
        standin::SetFault(test.call, 5, 1, test.skip);
        Restart();
        EXPECT_EQ(OnLoadObjectsCreation(), test.result);
        EXPECT_EQ(Mapped(), test.mapped);
        EXPECT_EQ(CountLog(test.line), 1);
    }
}

// The last failure decides, and none stops the walk. Objects 11, 12 and 13.
TEST_F(Population, TellsTheLastFailure)
{
    struct Case
    {
        const char *name;
        std::vector<std::pair<int, int>> faults; // mapping insert, status
        int goneObject;                          // 0: none
        int result;
        Lines mapped;
    };
    const Case cases[] = {
        {"none", {}, 0, 0, {"11", "12", "13"}},
        {"fails", {{0, 1}}, 0, -1, {"12", "13"}},
        {"corrupt last", {{2, 11}}, 0, 11, {"11", "12"}},
        {"fails, corrupt", {{0, 1}, {2, 11}}, 0, 11, {"12"}},
        {"corrupt, fails", {{0, 11}, {2, 1}}, 0, -1, {"12"}},
        {"corrupt, good", {{0, 11}}, 0, 11, {"12", "13"}},
        {"corrupt, gone", {{0, 11}}, 13, 256, {"12"}},
        {"gone, corrupt", {{1, 11}}, 11, 11, {"12"}},
    };
    for (const uint16_t type : {kStatus, kRoot})
    {
        for (const Case &test : cases)
        {
            SCOPED_TRACE(test.name);
            standin::Reset();
            mirror_.Rows("DELETE FROM ActiveOIDMapping");
            for (const uint32_t oid : {11u, 12u, 13u})
            {
                PutObject(type, oid);
            }
            Restart();
            int before = 0; // a call that fails isn't counted by later faults
            for (const auto &[insert, status] : test.faults)
            {
                FailSteps(kMapping, status, 1, insert - before++);
            }
            if (test.goneObject != 0)
            {
                standin::SetFault("ZOILGetObjByOID", 0, 1,
                                  test.goneObject - 11);
            }
            EXPECT_EQ(type == kRoot ? InsertObjBasedOnObjType(kRoot)
                                    : OnLoadObjectsCreation(),
                      test.result);
            ClearSqliteFaults();
            EXPECT_EQ(Mapped(), test.mapped);
        }
    }
}

TEST_F(Population, FetchesUnreadableObjectsAgain)
{
    struct Case
    {
        const char *name;
        int goneAt; // lines until the object vanishes, until it is mended
        int mendedAt;
        int result;
        int lines;
    };
    const Case cases[] = {
        {"mended at the third", 0, 3, 0, 3},
        {"mended at last", 0, 99, 0, 99},
        {"never", 0, 0, -1, 100},
        {"vanishes", 1, 0, -1, 100},
        {"vanishes and comes back", 1, 9, 0, 9},
    };
    for (const uint16_t type : {kStatus, kRoot})
    {
        for (const Case &test : cases)
        {
            SCOPED_TRACE(test.name);
            standin::Reset();
            mirror_.Rows("DELETE FROM ActiveOIDMapping");
            const Bytes good = MakeObject(type, 11);
            Bytes broken = good;
            broken[0x15] = 0x20;
            EXPECT_EQ(standin::PutRawObject(broken), "");
            PutObject(type, 12);
            Restart();
            const std::string function = type == kRoot
                                             ? "InsertObjBasedOnObjType"
                                             : "OnLoadObjectsCreation";
            const LineHook hook(
                function + ": ZO_STATUS_INVALID_VALUE returned\n",
                [&](int count)
                {
                    if (count == test.goneAt)
                    {
                        standin::DeleteObjects(Words{11}, false);
                    }
                    if (count == test.mendedAt)
                    {
                        standin::PutRawObject(good);
                    }
                });
            EXPECT_EQ(type == kRoot ? InsertObjBasedOnObjType(kRoot)
                                    : OnLoadObjectsCreation(),
                      test.result);
            EXPECT_EQ(hook.Count(), test.lines);
            EXPECT_EQ(SleepCount(), 0);
            EXPECT_EQ(Mapped(),
                      test.result == 0 ? (Lines{"11", "12"}) : Lines{"12"});
        }
    }
}

// A parent that is found behind one that is gone goes with the object, though
// the log calls it not found.
TEST_F(Population, PassesLateParentsOn)
{
    PutObject(0x1100, 80);
    const Words parents = {79, 80};
    EXPECT_EQ(standin::PutRawObject(MakeObject(kStatus, 11), parents), "");
    EXPECT_EQ(OnLoadObjectsCreation(), 0);
    EXPECT_EQ(mirror_.Value("SELECT ParentObjectKey FROM "
                            "TblDMStatus_Child_Obj"),
              "1100||Object.80");
    // That of the parent itself, and of its child.
    EXPECT_EQ(CountLog("Parent Object not found\n"), 2);
    EXPECT_EQ(CountLog("Parent Object found"), 0);
}

TEST_F(Population, InsertsOneType)
{
    struct Case
    {
        const char *name;
        uint32_t type;
        bool noList;
        int result;
        Lines mapped;
        int skippingLines;
    };
    const Case cases[] = {
        {"root data", kRoot, false, 0, {"14", "15"}, 0},
        {"no objects", 0x1C, false, 0, {}, 0},
        {"no list", kRoot, true, 256, {}, 0},
        {"first row of two", 0x31B, false, 0, {"21"}, 0},
        {"unknown type, by the first row", 0x7777, false, 0, {"61"}, 0},
        {"attributes, not from here", 0x4051, false, 0, {}, 161},
        {"attributes, no list", 0x4051, true, 256, {}, 0},
    };
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        standin::Reset();
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        Fill();
        PutObject(kRoot, 14);
        PutObject(kRoot, 15);
        PutObject(0x31B, 23, R"({"protocol": 16, "attributes": 2})");
        Bytes unknown = MakeObject(kStatus, 61);
        unknown[8] = 0x77;
        unknown[9] = 0x77;
        EXPECT_EQ(standin::PutRawObject(unknown), "");
        standin::SetFault("ZOILListChildOIDByType", 0, test.noList ? 1 : 0);
        Restart();
        EXPECT_EQ(InsertObjBasedOnObjType(test.type), test.result);
        EXPECT_EQ(Mapped(), test.mapped);
        EXPECT_EQ(CountLog(kSkipping), test.skippingLines);
    }
    EXPECT_EQ(InsertObjBasedOnObjType(0x7777), 0);
    EXPECT_EQ(mirror_.Rows("SELECT ObjType FROM ActiveOIDMapping NATURAL JOIN "
                           "TblDMStatus_Child_Obj"),
              Lines{"30583"});
    EXPECT_EQ(CountLog("InsertObjBasedOnObjType: pDOH->objType=30583, "
                       "pDOH->objType=0x7777\n"),
              1);
}

} // namespace
} // namespace qdb::test
