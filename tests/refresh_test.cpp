// The refresh handler, seen from outside: what it writes, what it announces as
// changed, and what is left behind when a statement fails.

#include "tests/support/handler_fixture.h"

#include <gtest/gtest.h>

namespace qdb::test
{
namespace
{

TEST_F(Handler, RefreshAnnouncesWhatChanged)
{
    struct Case
    {
        const char *name;
        uint16_t type;
        const char *before;
        const char *after;
        const char *changed;  // NULL: nothing to announce
        const char *previous; // NULL: not told
    };
    // clang-format off
    const Case cases[] = {
        {"nothing", kStatus, R"("popStatus": 1)", R"("popStatus": 1)", nullptr, nullptr},
        {"one column", kStatus, R"("popStatus": 1, "key": "a")", R"("popStatus": 4294967295, "key": "a")", R"("popStatus": 4294967295)", nullptr},
        {"two columns, in the table's order", kStatus, R"("popStatus": 1, "key": "a")", R"("popStatus": 2, "key": "b")", R"("key": "b", "popStatus": 2)", nullptr},
        {"from and to nothing", kStatus, R"("key_STR": "a")", "", R"("key_STR": null)", nullptr},
        {"a real", 0xD40, R"("sensorReading": 1.0)", R"("sensorReading": 1.5)", R"("sensorReading": 1.5)", nullptr},
        {"upper half, kept whole", 0xE1, R"("CacheSize": 4294967297)", R"("CacheSize": 8589934593)", R"("CacheSize": 8589934593)", nullptr},
        {"upper half, cut off", 0x304, R"("freeSize": 4294967297)", R"("freeSize": 8589934593)", nullptr, nullptr},
        {"lower half, cut off", 0x304, R"("freeSize": 1)", R"("freeSize": 6442450945)", R"("freeSize": -2147483647)", R"("freeSize": 1)"},
        {"with the old values", 0x703, R"("hdr_DOT_Partition": 1, "hdr_DOT_fqdd": "a")", R"("hdr_DOT_Partition": 2)", R"("hdr_DOT_fqdd": null, "hdr_DOT_Partition": 2)", R"("hdr_DOT_fqdd": "a", "hdr_DOT_Partition": 1)"},
        {"an attribute", 0x4051, R"("currentValue": -1)", R"("currentValue": 1)", R"("currentValue": 1)", R"("currentValue": -1)"},
    };
    // clang-format on
    uint32_t oid = 256;
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        const std::string table = FindRow(test.type)->table->name;
        const auto make = [&](const char *values)
        {
            return MakeObject(test.type, oid, std::string("{") + values + "}");
        };
        EXPECT_EQ(Create(make(test.before)), 0);
        const Lines created = Announced();
        Age(table);
        Restart(3);
        EXPECT_EQ(Refresh(make(test.after)), 0);
        const std::string where = " WHERE OID = " + std::to_string(oid);
        EXPECT_EQ(mirror_.Value("SELECT length(SingleRecordEtag) FROM " +
                                table + where),
                  "10");
        Lines expected;
        if (test.changed != nullptr)
        {
            const std::string tag = R"(, "SingleRecordEtag": ")";
            const std::string previous =
                test.previous == nullptr
                    ? ""
                    : R"(, "PreviousPropertyValues": {)" +
                          std::string(test.previous) + tag + "1\"}";
            expected = {R"(, "PropertiesChanged": {)" +
                        std::string(test.changed) + tag + "T\"}" + previous +
                        "}"};
        }
        Lines tails = Announced();
        for (std::string &line : tails)
        {
            EXPECT_EQ(line.find(R"(Changed {"TableName": ")" + table +
                                R"(", "RowDetails": {)"),
                      0U);
            line.erase(0, line.find(R"(, "PropertiesChanged")"));
        }
        EXPECT_EQ(tails, expected);
        EXPECT_EQ(CountLog("] No change set found for " + std::to_string(oid)),
                  test.changed == nullptr ? 1 : 0);
        ++oid;
    }
}

TEST_F(Handler, RefreshAnnouncesTheWholeRow)
{
    EXPECT_EQ(Create(Status(256, "a", 1)), 0);
    Announced();
    Age(kStatusTable);
    EXPECT_EQ(Refresh(Status(256, "b", 1)), 0);
    EXPECT_EQ(Announced(),
              Lines{StatusChange("Changed", StatusRow("256", "b", 1),
                                 R"(, "PropertiesChanged": {"popName": "b", )"
                                 R"("SingleRecordEtag": "T"})")});
}

TEST_F(Handler, OldValuesGoWithSixteenTypes)
{
    Lines with;
    uint32_t oid = 256;
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        SCOPED_TRACE(row.suffix);
        const auto type = static_cast<uint16_t>(row.objType);
        EXPECT_EQ(row.CreateObjFP(HeaderOf(MakeObject(type, oid)), nullptr), 0);
        Age(row.table->name);
        EXPECT_EQ(
            row.RefreshObjFP(HeaderOf(MakeObject(type, oid, "{}", 1)), nullptr),
            0);
        ++oid;
        const Lines changes = Announced();
        ASSERT_EQ(changes.size(), 2U);
        if (changes[1].find(R"("PreviousPropertyValues": )"
                            R"({"DOH_ObjStatus": 0, )"
                            R"("SingleRecordEtag": "1"})") != std::string::npos)
        {
            with.push_back(row.suffix);
        }
        else
        {
            EXPECT_EQ(changes[1].find("PreviousPropertyValues"),
                      std::string::npos);
        }
    }
    EXPECT_EQ(with,
              (Lines{"304", "4051", "4052", "4053", "703", "704", "706", "723",
                     "724", "726", "743", "744", "746", "783", "784", "786"}));
}

// A failing statement of a refresh; the object's popStatus goes from 1 to 2.
struct RefreshCase
{
    const char *name;
    Faults faults;
    int result;
    const char *popStatus; // afterwards
    bool announced;
    Lines lines; // up to level 3
};

const std::string kUpdate = "UPDATE TblDMStatus_Child_Obj";
const std::string kRefreshMsg = " RefreshObj_1001 sqlite errormsg:";

Lines NotRefreshed(int status)
{
    return {"[1001] Failed to select Json Obj for 256 100. Error: " +
            std::to_string(status)};
}

Lines NotUpdated(const char *attempt)
{
    return {std::string("[1001]") + attempt +
                " attmptEntry for 256 100 could not updated in "
                "TblDMStatus_Child_Obj Tbl.Error: -1",
            kRefreshMsg};
}

Lines RefreshNotPrepared(int status)
{
    return Lines{"[1001]sqlite3_prepare_v2 Error: " + std::to_string(status) +
                     " oID:256",
                 kRefreshMsg} +
           NotRefreshed(status);
}

// clang-format off
const RefreshCase kRefreshes[] = {
    {"no fault", {{}, {}}, 0, "2", true, {}},
    {"not prepared", {{}, {{kUpdate, {1, 1}}}}, 1, "1", false, RefreshNotPrepared(1)},
    {"not prepared, busy", {{}, {{kUpdate, {5, 1}}}}, 5, "1", false, RefreshNotPrepared(5)},
    {"not prepared, corrupt", {{}, {{kUpdate, {11, 1}}}}, 11, "1", false, RefreshNotPrepared(11)},
    {"not prepared, and no row", {{{kRead, {101, 1}}}, {{kUpdate, {1, 1}}}}, 1, "1", false, RefreshNotPrepared(1)},
    {"not readable", {{{kRead, {1, 1}}}, {}}, 1, "1", false, NotRefreshed(1)},
    {"read busy", {{{kRead, {5, 1}}}, {}}, 5, "1", false, NotRefreshed(5)},
    {"read corrupt", {{{kRead, {11, 1}}}, {}}, 11, "1", false, NotRefreshed(11)},
    {"no row", {{{kRead, {101, 1}}}, {}}, 101, "1", false, NotRefreshed(101)},
    {"update fails once", {{{kUpdate, {1, 1}}}, {}}, 0, "2", true, NotUpdated("1st")},
    {"update corrupt once", {{{kUpdate, {11, 1}}}, {}}, 0, "2", true, NotUpdated("1st")},
    {"update fails twice", {{{kUpdate, {1, 2}}}, {}}, -1, "1", false, NotUpdated("1st") + NotUpdated("2nd") + NotRefreshed(-1)},
    {"update corrupt at last", {{{kUpdate, {1, 1}}, {kUpdate, {11, 1}}}, {}}, 11, "1", false, NotUpdated("1st") + NotUpdated("2nd") + NotRefreshed(11)},
    {"second reading fails", {{{kRead, {1, 1}}}, {}, 1}, 1, "2", false, NotRefreshed(1)},
    {"second reading corrupt", {{{kRead, {11, 1}}}, {}, 1}, 11, "2", false, NotRefreshed(11)},
    {"row gone meanwhile", {{{kRead, {101, 1}}}, {}, 1}, -1, "2", false, NotRefreshed(-1)},
};
// clang-format on

TEST_F(Handler, RefreshLeavesOnlyWhatIsWritten)
{
    EXPECT_EQ(Create(Status(256, "p", 1)), 0);
    for (const RefreshCase &test : kRefreshes)
    {
        SCOPED_TRACE(test.name);
        ForgetStatements();
        EXPECT_EQ(Refresh(Status(256, "p", 9)), 0);
        mirror_.Rows("UPDATE TblDMStatus_Child_Obj SET popStatus = 1");
        FinalizeHandlerStatements();
        Announced();
        Restart(3);
        test.faults.Arm();
        EXPECT_EQ(Refresh(Status(256, "p", 2)), test.result);
        EXPECT_EQ(Logged(), test.lines);
        EXPECT_EQ(mirror_.Value("SELECT popStatus FROM TblDMStatus_Child_Obj"),
                  test.popStatus);
        EXPECT_EQ(Announced().size(), test.announced ? 1U : 0U);
        // Nothing of it meets the next refresh.
        ClearSqliteFaults();
        EXPECT_EQ(Refresh(Status(256, "q", 3)), 0);
        EXPECT_EQ(mirror_.Rows("SELECT key, popName, popStatus FROM "
                               "TblDMStatus_Child_Obj"),
                  Lines{"k|q|3"});
    }
    EXPECT_EQ(Kept(), Lines{});
}

TEST_F(Handler, KeepsAJobWhoseUpdateFailed)
{
    const Bytes job = MakeObject(0xA03, 256);
    EXPECT_EQ(Create(job), 0);
    Restart();
    FailSteps("UPDATE TblJobControlInfoObj", SQLITE_ERROR, 2);
    EXPECT_EQ(Refresh(job), -1);
    EXPECT_EQ(CountLog("Refresh_[A03]:Sqlite refresh entry failed so add to "
                       "Fail Queue objtype:0xa03 objID:0x100 objtype index 0"),
              1);
    EXPECT_EQ(Kept(), Lines{"256 2 0"});
}

TEST_F(Handler, RefreshLeavesWhatOnlyTheInsertWrites)
{
    PutObject(0x1100, 0x50);
    PutObject(0x1100, 0x51);
    const Bytes first = standin::ObjectBytes(0x50);
    const Bytes second = standin::ObjectBytes(0x51);
    const auto make = [](const std::string &root)
    {
        return MakeObject(0x1200, 256,
                          R"({"RootObjectKey": ")" + root +
                              R"(", "ifName": ")" + root + "\"}");
    };
    EXPECT_EQ(Create(make("a"), HeaderOf(first)), 0);
    EXPECT_EQ(Refresh(make("b"), HeaderOf(second)), 0);
    EXPECT_EQ(mirror_.Rows("SELECT ifName, RootObjectKey, ParentObjectKey FROM "
                           "TblOSLogicalNetworkIntfObj"),
              Lines{"b|a|1100||Object.80"});
    // An object that can't be read as it stands changes nothing.
    Bytes broken = make("c");
    broken[0x15] = 0x20;
    EXPECT_EQ(Refresh(broken), 0) << "the update doesn't bind the root key";
    Bytes status = Status(257, "p", 1);
    EXPECT_EQ(Create(status), 0);
    status[0x15] = 0x20;
    EXPECT_EQ(Refresh(status), 8216);
    EXPECT_EQ(Create(MakeObject(kStatus, 258)), 0);
}

TEST_F(Handler, RefreshLeavesRawValues)
{
    const auto make = [](const std::string &value)
    {
        return MakeObject(0x4052, 256, R"({"CurrentValue": ")" + value + "\"}");
    };
    EXPECT_EQ(Create(make("old")), 0);
    mirror_.Rows("UPDATE TblStrAttribute SET isRawData = 1, "
                 "SingleRecordEtag = '1'");
    Announced();
    Restart(3);
    EXPECT_EQ(Refresh(make("new")), 0);
    EXPECT_EQ(LogLines(),
              Lines{"[4052] No change set found for 256 100. Error: 0"});
    const std::string query =
        "SELECT CurrentValue, SingleRecordEtag, isRawData FROM TblStrAttribute";
    EXPECT_EQ(mirror_.Rows(query), Lines{"old|1|1"});
    EXPECT_EQ(Announced(), Lines{});
    mirror_.Rows("UPDATE TblStrAttribute SET isRawData = 0");
    EXPECT_EQ(Refresh(make("new")), 0);
    EXPECT_EQ(mirror_.Value("SELECT CurrentValue FROM TblStrAttribute"), "new");
    EXPECT_EQ(Announced().size(), 1U);
}

TEST_F(Handler, AnnouncesArrays)
{
    struct Step
    {
        const char *name;
        const char *elements;
        int count;
        std::string row;     // the array in the whole row
        std::string changed; // "": the array isn't among the changes
    };
    const Step steps[] = {
        {"nothing yet", "", 0, "null", ""},
        {"first elements", "5, 6", 2, Elements({5, 6}), Elements({5, 6})},
        {"one changes", "5, 7", 2, Elements({5, 7}), Elements({7}, 1)},
        {"longer", "5, 7, 8", 3, Elements({5, 7, 8}), "[]"},
        {"both", "4, 7, 9", 3, Elements({4, 7, 9}),
         R"([{"ARR_INDEX": 0, "VAL": 4}, {"ARR_INDEX": 2, "VAL": 9}])"},
        {"shorter, the rest stays", "4", 1, Elements({4, 7, 9}), ""},
        {"none, all stay", "", 0, Elements({4, 7, 9}), ""},
    };
    const std::string table = "TblSoftwareInventoryMetaDataObject";
    int count = -1;
    for (const Step &step : steps)
    {
        SCOPED_TRACE(step.name);
        Age(table);
        const Bytes object = List(256, step.elements);
        const std::string row = ListRow(256, step.count, step.row);
        if (count == -1)
        {
            EXPECT_EQ(Create(object), 0);
            EXPECT_EQ(Announced(), Lines{Announcement("Added", table, row)});
        }
        else
        {
            EXPECT_EQ(Refresh(object), 0);
            std::string changed;
            if (step.count != count)
            {
                changed =
                    R"("ObjTypeCount": )" + std::to_string(step.count) + ", ";
            }
            if (!step.changed.empty())
            {
                changed += R"("ObjTypeList": )" + step.changed + ", ";
            }
            EXPECT_EQ(Announced(), Lines{Announcement(
                                       "Changed", table, row,
                                       R"(, "PropertiesChanged": {)" + changed +
                                           R"("SingleRecordEtag": "T"})")});
        }
        count = step.count;
    }
    EXPECT_EQ(Delete(List(256, "")), 0);
    EXPECT_EQ(Announced(),
              Lines{Announcement("Removed", table,
                                 ListRow(256, 0, Elements({4, 7, 9})))});
    EXPECT_EQ(mirror_.Value("SELECT count(*) FROM "
                            "INTEGERARR_TblSoftwareInventoryMetaDataObject"),
              "0");
}

} // namespace
} // namespace qdb::test
