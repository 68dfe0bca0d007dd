// The create handler, seen from outside: rows, signals, log lines, the fail
// queue, and what is left behind when a statement fails.

#include "tests/support/handler_fixture.h"

#include <gtest/gtest.h>

namespace qdb::test
{
namespace
{

TEST_F(Handler, CreateWritesEverythingAndAnnouncesIt)
{
    PutObject(0x1100, 0x50);
    standin::ObjectSpec spec;
    spec.type = kStatus;
    spec.oid = 0x60;
    spec.parents = {0x51, 0x50}; // the first is gone
    ASSERT_EQ(standin::CreateObject(spec, false), "");
    const Bytes parent = standin::ObjectBytes(0x50);
    Restart();
    EXPECT_EQ(Create(Status(0x60, "pop", 3), HeaderOf(parent)), 0);
    const Lines lines = Logged();
    const std::string change = StatusChange(
        "Added", StatusRow("96", "pop", 3, R"("1100||Object.80")"));
    const std::string json = change.substr(6);
    EXPECT_EQ(Announced(), Lines{change});
    EXPECT_EQ(mirror_.Rows("SELECT OID, ObjType FROM ActiveOIDMapping"),
              Lines{"96|4097"});
    EXPECT_EQ(mirror_.Rows("SELECT OID, POID FROM ParentChildMapping"),
              Lines{"96|80"});
    EXPECT_EQ(mirror_.Rows("SELECT TableName, length(MultiRecordEtag) FROM "
                           "TblEtag WHERE MultiRecordEtag IS NOT NULL"),
              Lines{"TblDMStatus_Child_Obj|10"});
    // clang-format off
    EXPECT_EQ(lines,
              (Lines{
                  "[1001] CreateObj_1001 Entry for OID: 96",
                  "[1001] bind_values_to_statement_1001 Entry for OID: 96",
                  "[1001]ZOILDOGetObjKeyUTF8 returned 0",
                  "[1001] bind_values_to_statement_1001 Exit for OID: 96,status:0",
                  "[1001]Entering insertinActiveOIDMapping for OID- 0x60 96\n",
                  "[1001]Prepare Statement successful",
                  "[1001]Entry for ObjID:60 0x60 inserted in ActiveOIDMapping Table",
                  "[1001]Exiting insertinActiveOIDMapping for OID- 0x60 96\n",
                  "[1001] CreateObj_1001 status:0",
                  " Operation type 18, Table TblDMStatus_Child_Obj, rowid 1\n",
                  "buffer =||DMLiveObjectDatabase.db|TblDMStatus_Child_Obj|1|18||\n",
                  "QDB-TDB pipe open failed with error: 2, No such file or directory \n",
                  "Write to pipe failed\n",
                  "[1001] GetRowData_1001 Entry for OID: 96",
                  "[1001] GetRowData_1001 Exit for OID: 96,status:0 ret:100",
                  "[1001]get row function returns status = 0",
                  "Prepare Statement successful",
                  "ZOILGetObjByOID returned NULL!!! for OID = 0x51\n",
                  "ZOILGetObjByOID success for OID = 0x60 and POID = 0x50 \n",
                  "Prepare Statement successful",
                  "createObjJsonStr= " + json,
                  "buffer =" + json + "\n",
                  "[1001] CreateObj_1001 Exit for OID: 96,status:0 ret:0",
              }));
    // clang-format on
    CaptureLog();
    EXPECT_EQ(Create(Status(0x61, "pop", 3)), 0);
    EXPECT_EQ(CountLog("[1001]Using prepared statement"), 3);
}

// A failing statement and what it leaves.
struct CreateCase
{
    const char *name;
    uint16_t type;
    Faults faults;
    int result;
    bool mapped;
    bool row;
    bool announced;
    Lines lines; // up to level 3
};

const std::string kInsert = "REPLACE INTO TblDMStatus_Child_Obj";
const std::string kElements = "SELECT json_object('ARR_INDEX'";
const std::string kCreateMsg = " CreateObj_1001 sqlite errormsg:";

// The lines that tell of an object that isn't stored.
Lines NotInserted(int ret)
{
    return {"[1001]Entry for 256 100 could not inserted in "
            "TblDMStatus_Child_Obj Table. execute_statement returned error: " +
                std::to_string(ret),
            kCreateMsg};
}

Lines NotMapped(int ret)
{
    return {"[1001] Entry for 256 0x100 could not inserted in "
            "ActiveOIDMapping Table. Error: " +
            std::to_string(ret)};
}

Lines MappingFailed(int ret)
{
    const std::string status = std::to_string(ret);
    return Lines{"[1001]insertinActiveOIDMapping() failed :" + status,
                 "[1001]Status :" + status,
                 "[1001] CreateObj_1001 sqlite errormsg:"} +
           NotInserted(ret);
}

Lines Busy(int ret)
{
    return Lines{"[1001]ActiveOIDMapping Table SQLITE_BUSY or SQLITE_LOCKED "
                 "error.objID:256 objID:0x100 \n"} +
           NotMapped(ret);
}

Lines BusyOnce(int ret)
{
    return Busy(ret) +
           Lines{"[1001]LINE: insertinActiveOIDMapping() failed 1st attemp "
                 "failed:" +
                 std::to_string(ret)};
}

const std::string kSecond =
    "[1001]insertinActiveOIDMapping() failed 2nd attemp failed";
const Lines kFirstInsertFailed = {
    "[1001]1st atmpt Entry for 256 100 couldn't inserted in "
    "TblDMStatus_Child_Obj.Error:-1",
    kCreateMsg};
const Lines kBothInsertsFailed =
    kFirstInsertFailed +
    Lines{"[1001]2nd atmptEntry for 256 100 could not inserted in "
          "TblDMStatus_Child_Obj.Error:-1",
          kCreateMsg + " ret:-1"};
const Lines kNotPrepared = {"[1001]sqlite3_prepare_v2 Error: 1 oID:256",
                            kCreateMsg};

// clang-format off
const CreateCase kCreates[] = {
    {"insert not prepared", kStatus, {{}, {{kInsert, {1, 1}}}}, -1, false, false, false, kNotPrepared},
    {"insert not prepared, corrupt", kStatus, {{}, {{kInsert, {11, 1}}}}, 11, false, false, false, {"[1001]sqlite3_prepare_v2 Error: 11 oID:256", kCreateMsg}},
    {"mapping not prepared", kStatus, {{}, {{kMapping, {1, 1}}}}, -1, false, false, false, MappingFailed(1)},
    {"mapping not prepared, corrupt", kStatus, {{}, {{kMapping, {11, 1}}}}, 11, false, false, false, MappingFailed(11)},
    {"mapping fails", kStatus, {{{kMapping, {1, 1}}}, {}}, -1, false, false, false, NotMapped(1) + MappingFailed(1)},
    {"mapping fails, corrupt", kStatus, {{{kMapping, {11, 1}}}, {}}, 11, false, false, false, NotMapped(11) + MappingFailed(11)},
    {"mapping busy, then free", kStatus, {{{kMapping, {5, 100}}}, {}}, 0, true, true, true, BusyOnce(5) + Lines{kSecond + " status:0 OID:256"}},
    {"mapping busy, then broken", kStatus, {{{kMapping, {6, 100}}, {kMapping, {1, 1}}}, {}}, -1, false, false, false, BusyOnce(6) + NotMapped(1) + Lines{kSecond + " status:1 OID:256"} + NotInserted(1)},
    {"mapping busy, then corrupt", kStatus, {{{kMapping, {6, 100}}, {kMapping, {11, 1}}}, {}}, 11, false, false, false, BusyOnce(6) + NotMapped(11) + Lines{kSecond + " status:11 OID:256"} + NotInserted(11)},
    {"mapping busy twice", kStatus, {{{kMapping, {6, 200}}}, {}}, -1, false, false, false, BusyOnce(6) + Busy(6) + Lines{kSecond + ":6", "[1001]DB still LOCK or BUSY status:6 OID:256"} + NotInserted(6)},
    {"insert fails once", kStatus, {{{kInsert, {1, 1}}}, {}}, 0, true, true, true, kFirstInsertFailed},
    {"insert corrupt once", kStatus, {{{kInsert, {11, 1}}}, {}}, 0, true, true, true, kFirstInsertFailed},
    {"insert fails twice", kStatus, {{{kInsert, {1, 2}}}, {}}, -1, true, false, false, kBothInsertsFailed + NotInserted(-1)},
    {"insert corrupt at last", kStatus, {{{kInsert, {1, 1}}, {kInsert, {11, 1}}}, {}}, 11, true, false, false, kBothInsertsFailed + NotInserted(11)},
    {"insert corrupt at first", kStatus, {{{kInsert, {11, 1}}, {kInsert, {1, 1}}}, {}}, -1, true, false, false, kBothInsertsFailed + NotInserted(-1)},
    {"row not readable", kStatus, {{{kRead, {1, 1}}}, {}}, -1, true, true, false, {}},
    {"row gone", kStatus, {{{kRead, {101, 1}}}, {}}, -1, true, true, false, {}},
    {"row corrupt", kStatus, {{{kRead, {11, 1}}}, {}}, 11, true, true, false, {}},
    {"reader not prepared", kStatus, {{}, {{kRead, {1, 1}}}}, -1, true, true, false, {"[1001]sqlite3_prepare_v2 Error: 1 oID:256", " GetRowData_1001 sqlite errormsg:"}},
    {"reader not prepared, corrupt", kStatus, {{}, {{kRead, {11, 1}}}}, 11, true, true, false, {"[1001]sqlite3_prepare_v2 Error: 11 oID:256", " GetRowData_1001 sqlite errormsg:"}},
    {"tag fails", kStatus, {{{"TblEtag", {1, 1}}}, {}}, 0, true, true, true, {"Entry for TblDMStatus_Child_Obj could not inserted in TblEtag Table. Error: -1", "TblEtag could not be updated for TblDMStatus_Child_Obj", kCreateMsg}},
    {"tag not prepared", kStatus, {{}, {{"TblEtag", {11, 1}}}}, 0, true, true, true, {"TblEtag could not be updated for TblDMStatus_Child_Obj", kCreateMsg}},
    {"an element fails", kList, {{{"INTO INTEGERARR", {1, 1}}}, {}}, 0, true, true, true, {"[801]Array index 0 for prop ObjTypeList OID 256 100 could not inserted into Array Table. Error: -1"}},
    {"elements not prepared", kList, {{}, {{"INTO INTEGERARR", {1, 1}}}}, 0, true, true, true, {}},
    {"elements not readable", kList, {{{kElements, {1, 1}}}, {}}, -1, true, true, false, {}},
    {"elements corrupt", kList, {{}, {{kElements, {11, 1}}}}, 11, true, true, false, {}},
};
// clang-format on

TEST_F(Handler, CreateLeavesOnlyWhatIsWritten)
{
    for (const CreateCase &test : kCreates)
    {
        SCOPED_TRACE(test.name);
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        mirror_.Rows("UPDATE TblEtag SET MultiRecordEtag = NULL");
        ForgetStatements();
        Restart(3);
        test.faults.Arm();
        const auto make = [&](uint32_t oid)
        {
            return test.type == kList ? List(oid, "7, 8") : Status(oid, "p", 1);
        };
        EXPECT_EQ(Create(make(256)), test.result);
        EXPECT_EQ(Logged(), test.lines);
        ClearSqliteFaults();
        const std::string table = FindRow(test.type)->table->name;
        EXPECT_EQ(Count("ActiveOIDMapping", 256), test.mapped ? "1" : "0");
        EXPECT_EQ(Count(table, 256), test.row ? "1" : "0");
        if (test.row && !test.announced)
        {
            EXPECT_EQ(mirror_.Value("SELECT count(MultiRecordEtag) FROM "
                                    "TblEtag"),
                      "1");
        }
        EXPECT_EQ(Announced().size(), test.announced ? 1U : 0U);
        EXPECT_EQ(SleepCount(), 0);
        // Nothing of it meets the next object.
        EXPECT_EQ(Create(make(257)), 0);
        EXPECT_EQ(Announced().size(), 1U);
        EXPECT_EQ(Count(table, 257), "1");
    }
}

TEST_F(Handler, InsertWaitsForABusyDatabase)
{
    struct Case
    {
        int busy;
        int result;
        Lines lines;
    };
    const Case cases[] = {
        {99, 0, {}},
        {100, 0, kFirstInsertFailed},
        {199, 0, kFirstInsertFailed},
        {200, -1, kBothInsertsFailed + NotInserted(-1)},
    };
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.busy);
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        Restart(3);
        FailSteps(kInsert, SQLITE_BUSY, test.busy);
        EXPECT_EQ(Create(Status(256, "p", 1)), test.result);
        EXPECT_EQ(Logged(), test.lines);
        EXPECT_EQ(SleepCount(), test.busy);
        EXPECT_EQ(SleptMicroseconds(), test.busy * 110000LL);
    }
}

TEST_F(Handler, CreateOfAMappedObjectLeavesItsRow)
{
    struct Case
    {
        uint16_t type;
        const char *values;
        const char *other;
        long long slept;
    };
    const Case cases[] = {
        {kStatus, R"({"popStatus": 1})", R"({"popStatus": 2})", 0},
        {0x42, R"({"source": 1})", R"({"source": 2})", 100 * 1000},
    };
    for (const Case &test : cases)
    {
        const ObjTypeRow &row = *FindRow(test.type);
        const std::string all = std::string("SELECT * FROM ") + row.table->name;
        EXPECT_EQ(Create(MakeObject(test.type, 256, test.values)), 0);
        const Lines before = mirror_.Rows(all);
        EXPECT_EQ(Announced().size(), 1U);
        Restart(3);
        EXPECT_EQ(Create(MakeObject(test.type, 256, test.other)), -1);
        EXPECT_EQ(StepCount(kMapping), 100);
        EXPECT_EQ(SleptMicroseconds(), test.slept);
        EXPECT_EQ(LogLines(),
                  Lines{std::string("[") + (test.type == 0x42 ? "42" : "1001") +
                        "] Entry for 256 0x100 could not inserted in "
                        "ActiveOIDMapping Table. Error: 19"});
        EXPECT_EQ(mirror_.Rows(all), before);
        EXPECT_EQ(StepCount("TblEtag"), 0);
        EXPECT_EQ(Announced(), Lines{});
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
    }
}

TEST_F(Handler, KeepsWhatABusyDatabaseRefused)
{
    struct Case
    {
        uint16_t type;
        Lines created;
        int refreshed; // the result for an object without a row
        Lines missed;
    };
    const Case cases[] = {
        {kStatus, {}, 101, {}},
        {kList, {}, 101, {}},
        {0x15, {"256 1 1"}, -1, {"256 3 1"}}, // read by columns
        {0x91, {}, 101, {}},                  // likewise
        {0x42, {"256 1 7"}, 101, {}},
        {0x5D, {"256 1 10"}, -1, {"256 3 10"}},
        {0xE1, {"256 1 14"}, -1, {"256 3 14"}},
        {0xA03, {"256 1 35"}, -1, {"256 3 35"}},
        {0x2356, {"256 1 37"}, -1, {"256 3 37"}},
    };
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.type);
        const ObjTypeRow &row = *FindRow(test.type);
        const Bytes object = MakeObject(test.type, 256);
        const std::string queued = "objtype:0x" +
                                   [&]
        {
            char text[16];
            std::snprintf(text, sizeof(text), "%x", test.type);
            return std::string(text);
        }() + " objID:0x100 objtype index";
        Restart();
        FailSteps(kMapping, SQLITE_BUSY, 200);
        EXPECT_EQ(Create(object), -1);
        EXPECT_EQ(CountLog(std::string("Create_[") + row.suffix +
                           "]:Sqlite busy or lock error so adding to Fail "
                           "Queue " +
                           queued),
                  static_cast<int>(test.created.size()));
        EXPECT_EQ(Kept(), test.created);

        Restart(2);
        EXPECT_EQ(Refresh(object), test.refreshed);
        EXPECT_EQ(CountLog(std::string("Refresh_[") + row.suffix +
                           "]: Get Row Data Failed so adding to Fail Queue " +
                           queued),
                  static_cast<int>(test.missed.size()));
        EXPECT_EQ(Kept(), test.missed);
        EXPECT_EQ(StepCount("UPDATE"), 0);
    }
    EXPECT_EQ(Announced(), Lines{});
}

TEST_F(Handler, UnreadableTextsEndWithTheirObject)
{
    struct Case
    {
        const char *name;
        uint16_t type;
        const char *column;
        size_t at;
    };
    const Case cases[] = {
        {"read as JSON", kStatus, "popName", 0x20},
        {"read by columns", 0x304, "fqdd", 0x593},
    };
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        const std::string values =
            std::string("{\"") + test.column + "\": \"abc\"}";
        const std::string table = FindRow(test.type)->table->name;
        const auto stored = [&](int oid)
        {
            return mirror_.Value("SELECT hex(" + std::string(test.column) +
                                 ") FROM " + table +
                                 " WHERE OID = " + std::to_string(oid));
        };
        Bytes object = MakeObject(test.type, 256, values);
        object[test.at] = 0xFF;
        EXPECT_EQ(Create(object), -1);
        EXPECT_EQ(stored(256), "FF6263");
        EXPECT_EQ(Announced(), Lines{});
        EXPECT_EQ(Create(MakeObject(test.type, 257, values)), 0);
        EXPECT_EQ(Announced().size(), 1U);
        object[4] = 1; // the other object's OID, 257
        EXPECT_EQ(Refresh(object), -1);
        EXPECT_EQ(stored(257), "FF6263");
        EXPECT_EQ(Delete(object), -1);
        EXPECT_EQ(stored(257), "FF6263");
        EXPECT_EQ(Announced(), Lines{});
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
    }
}

} // namespace
} // namespace qdb::test
