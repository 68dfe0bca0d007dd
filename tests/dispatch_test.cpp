// From the Data Manager's records to the handlers.

#include "core/state.h"
#include "events/dispatch.h"
#include "objects/catalogue.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"

#include <gtest/gtest.h>

namespace qdb::test
{
namespace
{

constexpr uint16_t kStatus = 0x1001;
constexpr char kLookUp[] = "select ObjType from ActiveOIDMapping";
constexpr char kMapping[] = "insert into ActiveOIDMapping";
constexpr char kUpdate[] = "UPDATE TblDMStatus_Child_Obj";
constexpr uint16_t kDirty = 3;
constexpr uint16_t kCreate = 7;
constexpr uint16_t kDestroy = 8;

int Notify(uint16_t kind, const Words &oids)
{
    return ObjectNotification(EventOf(List(kind, oids)), kind);
}

// An object whose key can't be read as it stands.
Bytes Broken(uint32_t oid)
{
    Bytes object = MakeObject(kStatus, oid);
    object[0x15] = 0x20;
    return object;
}

void Put(const Bytes &object, const Words &parents = {})
{
    EXPECT_EQ(standin::PutRawObject(object, parents), "");
}

void Remove(uint32_t oid)
{
    EXPECT_EQ(standin::DeleteObjects(Words{oid}, false), "");
}

class Dispatch : public DbTest
{
  protected:
    Lines Rows(const std::string &table = "TblDMStatus_Child_Obj")
    {
        return mirror_.Rows("SELECT OID FROM " + table + " ORDER BY OID");
    }
};

TEST_F(Dispatch, RefusesWhatIsNoList)
{
    Words many = {4001};
    many.resize(1 + 4001, 5);
    const Bytes tooMany = Record(kDestroy, many);
    many.resize(1 + 4000);
    many[0] = 4000;
    struct Case
    {
        const char *name;
        Bytes record;
        int result;
        int lookUps;
        Lines lines;
    };
    const std::string invalid = "Invalid Obj Count in ObjList, notification "
                                "not processed pOL->objCount=";
    const Case cases[] = {
        {"empty", List(kDestroy, {}), 0, 0, {}},
        {"greatest", Record(kDestroy, many), 0, 8000, {}},
        {"one more", tooMany, 257, 0, {invalid + "4001\n"}},
        {"absurd",
         Record(kDestroy, {0xFFFFFFFF, 5}),
         257,
         0,
         {invalid + "4294967295\n"}},
        {"cut off",
         Record(kDestroy, {2, 5, 5}, "", 27),
         257,
         0,
         {invalid + "2\n"}},
        {"without OIDs", Record(kDestroy, {1}), 257, 0, {invalid + "1\n"}},
    };
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        Restart();
        EXPECT_EQ(ObjectNotification(EventOf(test.record), kDestroy),
                  test.result);
        EXPECT_EQ(StepCount(kLookUp), test.lookUps);
        if (test.lookUps == 0)
        {
            EXPECT_EQ(LogLines(), test.lines);
        }
    }
    Restart();
    EXPECT_EQ(ObjectNotification(nullptr, kCreate), 2);
    EXPECT_EQ(LogLines(),
              Lines{"Invalid Argument, notification not processed\n"});
}

// Every OID is tried, and the last failure decides.
TEST_F(Dispatch, GoesThroughAllObjects)
{
    struct Case
    {
        const char *name;
        uint16_t kind;
        Words oids; // 99 is gone
        const char *faulty;
        std::vector<Fault> faults;
        int result;
        Lines rows; // 16 has one before
    };
    // clang-format off
    const Case cases[] = {
        {"create", kCreate, {1001, 1002}, "", {}, 0, {"16", "1001", "1002"}},
        {"gone first", kCreate, {99, 1001}, "", {}, 256, {"16", "1001"}},
        {"gone last", kCreate, {1001, 99}, "", {}, 256, {"16", "1001"}},
        {"gone in between", kDirty, {99, 16, 99}, "", {}, 256, {"16"}},
        {"dirty without row", kDirty, {1001}, "", {}, 0, {"16"}},
        {"create of a row", kCreate, {16, 1001}, "", {}, -1, {"16", "1001"}},
        {"fails, then gone", kCreate, {1001, 99}, kMapping, {{1, 1}}, 256, {"16"}},
        {"gone, then fails", kCreate, {99, 1001}, kMapping, {{1, 1}}, -1, {"16"}},
        {"corrupt, then good", kCreate, {1001, 1002}, kMapping, {{11, 1}}, 11, {"16", "1002"}},
        {"corrupt, then gone", kCreate, {1001, 99}, kMapping, {{11, 1}}, 256, {"16"}},
        {"corrupt, then fails", kCreate, {1001, 1002}, kMapping, {{11, 1}, {1, 1}}, -1, {"16"}},
        {"fails, then corrupt", kCreate, {1001, 1002}, kMapping, {{1, 1}, {11, 1}}, 11, {"16"}},
        {"unknown destroyed", kDestroy, {99, 16}, "", {}, 0, {}},
        {"destroy fails", kDestroy, {16}, "DELETE FROM Active", {{1, 2}}, -1, {"16"}},
        {"destroy corrupt", kDestroy, {16}, "DELETE FROM Active", {{11, 2}}, 11, {"16"}},
    };
    // clang-format on
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        standin::Reset();
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        for (const uint32_t oid : {16u, 1001u, 1002u})
        {
            PutObject(kStatus, oid);
        }
        EXPECT_EQ(Notify(kCreate, {16}), 0);
        Restart();
        FailSteps(test.faulty, test.faults);
        EXPECT_EQ(Notify(test.kind, test.oids), test.result);
        ClearSqliteFaults();
        EXPECT_EQ(Rows(), test.rows);
    }
}

TEST_F(Dispatch, FetchesUnreadableObjectsAgain)
{
    struct Case
    {
        const char *name;
        uint16_t kind;
        int goneAt; // lines until the object vanishes, until it is mended
        int mendedAt;
        int result;
        int lines;
        const char *popStatus; // of the row; NULL: no row
    };
    const Case cases[] = {
        {"create, mended at once", kCreate, 0, 1, 0, 1, "7"},
        {"create, mended at the third", kCreate, 0, 3, 0, 3, "7"},
        {"create, mended at last", kCreate, 0, 99, 0, 99, "7"},
        {"create, mended too late", kCreate, 0, 100, -1, 100, nullptr},
        {"create, never", kCreate, 0, 0, -1, 100, nullptr},
        {"create, vanishes", kCreate, 1, 0, -1, 100, nullptr},
        {"create, vanishes and comes back", kCreate, 1, 50, 0, 50, "7"},
        {"refresh, mended at the third", kDirty, 0, 3, 0, 3, "7"},
        {"refresh, never", kDirty, 0, 0, -1, 100, "1"},
        {"refresh, vanishes", kDirty, 2, 0, -1, 2, "1"},
    };
    uint32_t oid = 100;
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        ++oid;
        if (test.kind == kDirty)
        {
            Put(MakeObject(kStatus, oid, R"({"popStatus": 1})"));
            EXPECT_EQ(Notify(kCreate, {oid}), 0);
        }
        Put(Broken(oid));
        CountSleeps();
        const uint64_t fetched = standin::CallCount("ZOILGetObjByOID");
        const std::string line =
            std::string("ObjectNotification: DATA_EVENT_DATA_OBJ_") +
            (test.kind == kCreate ? "CREATE" : "DIRTY_LIST") +
            ": ZO_STATUS_INVALID_VALUE returned\n";
        {
            const LineHook hook(
                line,
                [&](int count)
                {
                    if (count == test.goneAt)
                    {
                        Remove(oid);
                    }
                    if (count == test.mendedAt)
                    {
                        Put(MakeObject(kStatus, oid, R"({"popStatus": 7})"));
                    }
                });
            EXPECT_EQ(Notify(test.kind, {oid}), test.result);
            EXPECT_EQ(hook.Count(), test.lines);
        }
        EXPECT_EQ(standin::CallCount("ZOILGetObjByOID") - fetched,
                  1U + static_cast<unsigned>(test.lines));
        EXPECT_EQ(SleepCount(), 0);
        EXPECT_EQ(mirror_.Rows("SELECT popStatus FROM TblDMStatus_Child_Obj "
                               "WHERE OID = " +
                               std::to_string(oid)),
                  test.popStatus == nullptr ? Lines{} : Lines{test.popStatus});
    }
}

TEST_F(Dispatch, WaitsForABusyDatabase)
{
    struct Case
    {
        int busy;
        int result;
        int sleeps;
    };
    PutObject(kStatus, 16);
    EXPECT_EQ(Notify(kCreate, {16}), 0);
    for (const Case &test : {Case{100, -1, 100}, {99, 0, 99}, {1, 0, 1}})
    {
        SCOPED_TRACE(test.busy);
        FinalizeHandlerStatements();
        Restart();
        FailPrepares(kUpdate, SQLITE_LOCKED, test.busy);
        EXPECT_EQ(Notify(kDirty, {16}), test.result);
        EXPECT_EQ(SleepCount(), test.sleeps);
        EXPECT_EQ(SleptMicroseconds(), test.sleeps * 110000LL);
        EXPECT_EQ(CountLog(kRetry), test.sleeps);
        EXPECT_EQ(CountLog("Request: DATA_EVENT_DATA_OBJ_DIRTY_LIST Update: "
                           "OID: 10"),
                  1);
        EXPECT_EQ(CountLog(kUsedUp), test.result == 0 ? 0 : 1);
    }
}

// Of two rows of a type one takes the object; a destroy runs both.
TEST_F(Dispatch, ChoosesAmongTwoRows)
{
    struct Case
    {
        const char *name;
        uint16_t type;
        const char *values;
        int row; // that takes it; -1: none
    };
    const Case cases[] = {
        {"NVMe", 0x31B, R"({"protocol": 256})", 0},
        {"SAS SSD", 0x31B, R"({"protocol": 16, "attributes": 2})", 1},
        {"hard disk", 0x31B, R"({"protocol": 16, "attributes": 1})", -1},
        {"RAID slot", 0x45, R"({"emptySlotObj_DOT_slotType": 7})", 0},
        {"other slot", 0x45, R"({"slotType": 3})", 1},
    };
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        const ObjTypeRow *rows = FindRow(test.type);
        Bytes object = MakeObject(test.type, 16, test.values);
        if (test.type == 0x45 && test.row == 0)
        {
            object[0x1C] = 7;
        }
        Put(object);
        Restart();
        EXPECT_EQ(Notify(kCreate, {16}), 0);
        EXPECT_EQ(Notify(kDirty, {16}), 0);
        for (int i = 0; i < 2; ++i)
        {
            const std::string suffix = rows[i].suffix;
            const int runs = i == test.row ? 1 : 0;
            EXPECT_EQ(Rows(rows[i].table->name).size(),
                      static_cast<size_t>(runs));
            EXPECT_EQ(CountLog("CreateObj_" + suffix + " Entry"), runs);
            EXPECT_EQ(CountLog("RefreshObj_" + suffix + " Entry"), runs);
        }
        Restart();
        // The row that doesn't have the object fails.
        EXPECT_EQ(Notify(kDestroy, {16}), test.row == -1 ? 0 : -1);
        for (int i = 0; i < 2; ++i)
        {
            EXPECT_EQ(Rows(rows[i].table->name), Lines{});
            EXPECT_EQ(
                CountLog(std::string("DeleteObj_") + rows[i].suffix + " Entry"),
                test.row == -1 ? 0 : 1);
        }
    }
}

TEST_F(Dispatch, LeavesAttributesToTheBus)
{
    struct Case
    {
        uint32_t type;
        bool skipped;
    };
    for (const Case &test : {Case{0x4050, false},
                             {0x4051, true},
                             {0x4052, true},
                             {0x4053, true},
                             {0x4054, true},
                             {0x4055, false}})
    {
        SCOPED_TRACE(test.type);
        const Bytes object = MakeObject(0x1C, 16);
        Put(object);
        mirror_.Rows("INSERT INTO ActiveOIDMapping VALUES (16, " +
                     std::to_string(test.type) + ")");
        char line[80];
        std::snprintf(line, sizeof(line),
                      "Skipping legacy DM Event for ObjType=0x%04x!!\n",
                      test.type);
        Restart();
        standin::Reset();
        for (const uint16_t kind : {kCreate, kDirty, kDestroy})
        {
            const bool fetches = !test.skipped && kind != kDestroy;
            EXPECT_EQ(Notify(kind, {16}), fetches ? 256 : 0);
        }
        EXPECT_EQ(CountLog(line), test.skipped ? 3 : 0);
        EXPECT_EQ(standin::CallCount("ZOILGetObjByOID"),
                  test.skipped ? 0U : 2U);

        // The same by the type of the fetched object.
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        Bytes attribute = MakeObject(0x4051, 16);
        attribute[8] = static_cast<uint8_t>(test.type);
        Put(attribute);
        Restart();
        EXPECT_EQ(Notify(kCreate, {16}), 0);
        EXPECT_EQ(Notify(kDirty, {16}), 0);
        EXPECT_EQ(CountLog(line), test.skipped ? 2 : 0);
        EXPECT_EQ(mirror_.Value("SELECT count(*) FROM ActiveOIDMapping"), "0");
    }
}

TEST_F(Dispatch, GivesACreateItsParent)
{
    struct Case
    {
        const char *name;
        Words parents;
        bool noList;
        const char *key;
        Lines lines;
    };
    const std::string notFound = "Parent Object not found\n";
    // clang-format off
    const Case cases[] = {
        {"none", {}, false, "NULL", {notFound}},
        {"one", {80}, false, "1100||Object.80", {"Parent Object found pParentDOH=80\n"}},
        {"first of two", {80, 81}, false, "1100||Object.80", {"Parent Object found pParentDOH=80\n"}},
        {"gone", {79}, false, "NULL", {notFound}},
        {"gone, then one", {79, 81}, false, "NULL", {notFound}},
        {"no list", {80}, true, "NULL", {"Error: ZOILListParentOID returned NULL \n", notFound}},
    };
    // clang-format on
    PutObject(0x1100, 80);
    PutObject(0x1100, 81);
    uint32_t oid = 100;
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        Put(MakeObject(kStatus, ++oid), test.parents);
        Restart();
        standin::SetFault("ZOILListParentOID", 0, test.noList ? 1 : 0);
        EXPECT_EQ(Notify(kCreate, {oid}), 0);
        EXPECT_EQ(mirror_.Value("SELECT ParentObjectKey FROM "
                                "TblDMStatus_Child_Obj WHERE OID = " +
                                std::to_string(oid)),
                  test.key);
        Lines lines = LogLines();
        std::erase_if(lines,
                      [](const std::string &line)
                      {
                          return line.find("Parent Object") ==
                                     std::string::npos &&
                                 line.find("Error") == std::string::npos;
                      });
        EXPECT_EQ(lines, test.lines);
    }
}

TEST_F(Dispatch, RenewsTheParentsOfDisks)
{
    struct Case
    {
        const char *name;
        uint16_t type;
        int fault; // of the update's preparation
        bool vanishes;
        int result;
        bool renewed;
    };
    const Case cases[] = {
        {"success", 0x304, 0, false, 0, true},
        {"failure", 0x304, 1, false, -1, true},
        {"corrupt", 0x304, 11, false, 11, false},
        {"vanishes", 0x304, 0, true, -1, false},
        {"another type", kStatus, 0, false, 0, false},
    };
    PutObject(0x1100, 80);
    PutObject(0x1100, 81);
    uint32_t oid = 100;
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        Bytes object = MakeObject(test.type, ++oid);
        Put(object, {80});
        EXPECT_EQ(Notify(kCreate, {oid}), 0);
        if (test.vanishes)
        {
            object[0x15] = 0x20;
        }
        Put(object, {81});
        FinalizeHandlerStatements();
        Restart();
        if (test.fault != 0)
        {
            FailPrepares("UPDATE TblRAID_PhysicalDisk", test.fault, 1);
        }
        const LineHook hook("ZO_STATUS_INVALID_VALUE returned",
                            [&](int)
                            {
                                Remove(oid);
                            });
        EXPECT_EQ(Notify(kDirty, {oid}), test.result);
        EXPECT_EQ(mirror_.Rows("SELECT POID FROM ParentChildMapping WHERE OID "
                               "= " +
                               std::to_string(oid) + " ORDER BY 1"),
                  test.renewed ? (Lines{"80", "81"}) : Lines{"80"});
    }
}

// The predicate comes before the handler, and its repair is seen by it.
TEST_F(Dispatch, RepairsSetupEnumerations)
{
    Bytes object =
        MakeObject(0x706, 16, R"({"metadata_DOT_attrDependencies": "list"})");
    object[0x4D] |= 0xF0;
    Put(object);
    EXPECT_EQ(Notify(kCreate, {16}), 0);
    EXPECT_EQ(mirror_.Value("SELECT metadata_DOT_attrDependencies FROM "
                            "TblHII_Enum_Obj"),
              "list");
    EXPECT_EQ(Notify(kDirty, {16}), 0);
    EXPECT_EQ(mirror_.Value("SELECT metadata_DOT_attrDependencies FROM "
                            "TblHII_Enum_Obj"),
              "list");
}

} // namespace
} // namespace qdb::test
