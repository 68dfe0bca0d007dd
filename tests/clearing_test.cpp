// Removal of object rows, which all goes through the mapping table.
#include "core/state.h"
#include "db/clearing.h"
#include "db/mapping.h"
#include "tests/support/db_fixture.h"

#include <algorithm>

namespace qdb::test
{
namespace
{

using ClearingTest = DbTest;

// Objects 1 and 2 of type 0x16 and one of each configuration type.
constexpr char kObjects[] =
    "PRAGMA synchronous = OFF;"
    "DELETE FROM ActiveOIDMapping;"
    "INSERT INTO ActiveOIDMapping VALUES(1, 0x16), (2, 0x16), (3, 0x4051),"
    " (4, 0x4052), (5, 0x4053), (6, 0x4054);"
    "INSERT INTO TblProbeObj(OID) VALUES(1), (2);"
    "INSERT INTO TblIntAttribute(OID) VALUES(3);"
    "INSERT INTO TblStrAttribute(OID) VALUES(4);"
    "INSERT INTO TblEnumAttribute(OID) VALUES(5);"
    "INSERT INTO TblPasswdAttribute(OID) VALUES(6);"
    "INSERT INTO INTEGERARR_TblHealthStatusObj(OID, PROP, ARR_INDEX)"
    " VALUES(1, 'x', 0);"
    "INSERT INTO ParentChildMapping VALUES(2, 1);";

// The OIDs in the mapping table, in the object tables, in a side table, and in
// the links.
constexpr char kOids[] =
    "SELECT ifnull((SELECT group_concat(OID, '') FROM ActiveOIDMapping), '')"
    " || ':' || ifnull((SELECT group_concat(OID, '') FROM ("
    "  SELECT OID FROM TblProbeObj"
    "  UNION ALL SELECT OID FROM TblIntAttribute"
    "  UNION ALL SELECT OID FROM TblStrAttribute"
    "  UNION ALL SELECT OID FROM TblEnumAttribute"
    "  UNION ALL SELECT OID FROM TblPasswdAttribute)), '')"
    " || ':' || (SELECT count(*) FROM INTEGERARR_TblHealthStatusObj)"
    " || (SELECT count(*) FROM ParentChildMapping)";
constexpr char kAllThere[] = "123456:123456:11";

int ClearType()
{
    return ClearTblDatabyObjType(0x16);
}

int ClearAll()
{
    return ClearTableData("ActiveOIDMapping");
}

TEST_F(ClearingTest, ThePrepareIsRepeated)
{
    const struct
    {
        const char *sql;
        int (*call)();
        const char *left; // of kOids, when it worked
        const char *message;
    } kCalls[] = {
        {"delete from ActiveOIDMapping", ClearAll, "::00",
         "Could not removed from ActiveOIDMapping Table. Error: -1"},
        {"delete from ActiveOIDMapping where ObjType=22", ClearType,
         "3456:3456:00", "Could not removed from 16 Table. Error: -1"},
        {"INNER JOIN TblIntAttribute", ClearCfgMgrData, "12:12:11",
         "Could not removed from Cfg data. Error: -1"},
    };
    // clang-format off
    const struct
    {
        const char *name;
        std::vector<Fault> prepareFaults;
        std::vector<Fault> stepFaults;
        int result;
        int prepares;
        int pauses;
        int usedUp;   // lines
        int messages; // lines
    } kFaults[] = {
        {"none",               {},            {},        0,  1,   0,   0, 0},
        {"busy 99 times",      {{5, 99}},     {},        0,  100, 99,  0, 0},
        {"busy 100 times",     {{5, 100}},    {},        -1, 100, 100, 1, 0},
        {"locked 100 times",   {{6, 100}},    {},        -1, 100, 100, 1, 0},
        {"invalid 99 times",   {{8216, 99}},  {},        0,  100, 0,   0, 0},
        {"invalid 100 times",  {{8216, 100}}, {},        -1, 100, 0,   1, 0},
        {"prepared with 100",  {{100, 1}},    {},        0,  1,   0,   0, 0},
        {"prepared with 101",  {{101, 1}},    {},        0,  1,   0,   0, 0},
        {"not prepared",       {{1, 1}},      {},        -1, 1,   0,   0, 0},
        {"not run",            {},            {{19, 1}}, -1, 1,   0,   0, 1},
    };
    // clang-format on
    for (const auto &c : kCalls)
    {
        for (const auto &f : kFaults)
        {
            SCOPED_TRACE(std::string(c.sql) + ", " + f.name);
            ASSERT_EQ(mirror_.Rows(kObjects), Lines());
            ASSERT_EQ(mirror_.Value(kOids), kAllThere);
            Restart();
            FailPrepares(c.sql, f.prepareFaults);
            FailSteps(c.sql, f.stepFaults);
            EXPECT_EQ(c.call(), f.result);
            EXPECT_EQ(PrepareCount(c.sql), f.prepares);
            EXPECT_EQ(SleptMicroseconds(), f.pauses * 110000LL);
            EXPECT_EQ(std::ranges::count(LogLines(), kUsedUp), f.usedUp);
            EXPECT_EQ(CountLog(c.message), f.messages);
            EXPECT_EQ(mirror_.Value(kOids), f.result == 0 ? c.left : kAllThere);
        }
    }
}

TEST_F(ClearingTest, ConfigurationIsClearedTableByTable)
{
    const std::string kBegin = "Clearing table Cfg from ActiveOIDMapping.";
    const std::string kEnd = "Clearing table Cfg from ActiveOIDMapping: ";
    const struct
    {
        const char *name;
        std::vector<Fault> prepareFaults; // of the second table
        std::vector<Fault> stepFaults;
        int result;
        int prepares;
        const char *left;
        Lines lines; // up to level 3
    } kCases[] = {
        {"all well", {}, {}, 0, 4, "12:12:11", {kBegin, kEnd + "0."}},
        {"second not run",
         {},
         {{19, 1}},
         -1,
         4,
         "12456:12456:11",
         {kBegin, "Could not removed from Cfg data. Error: -1", kEnd + "-1."}},
        {"second not prepared",
         {{1, 1}},
         {},
         -1,
         2,
         "12456:12456:11",
         {kBegin}},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(mirror_.Rows(kObjects), Lines());
        Restart(3);
        FailPrepares("TblStrAttribute", c.prepareFaults);
        FailSteps("TblStrAttribute", c.stepFaults);
        EXPECT_EQ(ClearCfgMgrData(), c.result);
        EXPECT_EQ(PrepareCount("INNER JOIN"), c.prepares);
        EXPECT_EQ(LogLines(), c.lines);
        EXPECT_EQ(mirror_.Value(kOids), c.left);
    }
}

TEST_F(ClearingTest, DeleteHasASecondAttempt)
{
    const std::string kTag = "DeleteObjectByOID: ";
    const std::string kEnd =
        "####################################################";
    const Lines kFailed =
        Failure(19) +
        Lines{kTag + "Entry for -2 FFFFFFFE could not deleted. Error: -1"};
    const Lines kFirst = {
        "First Attempt  got failed to for 100 try  delete....Let  Try...\n"};
    const Lines kSecond = {
        "Retry 2nd attempt  got failed to delete for 100...\n"};
    const Lines kTwice = kFailed + kFirst + kFailed + kSecond;
    const struct
    {
        const char *name;
        std::vector<Fault> faults;
        int result;
        int steps;
        Lines lines;
        Lines rows;
    } kCases[] = {
        {"works", {}, 0, 1, {}, {}},
        {"works again", {{19, 1}}, 0, 2, kFailed + kFirst, {}},
        {"fails twice", {{19, 2}}, -1, 2, kTwice, {"-2|22"}},
    };
    EXPECT_EQ(DeleteObjectByOID(99), 0); // not mapped; prepares
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        insertinActiveOIDMapping(0xFFFFFFFE, 0x16);
        Restart();
        FailSteps("WHERE Oid", c.faults);
        EXPECT_EQ(DeleteObjectByOID(0xFFFFFFFE), c.result);
        EXPECT_EQ(StepCount("WHERE Oid"), c.steps);
        EXPECT_EQ(LogLines(),
                  Lines{kTag + "Using prepared statement"} + c.lines +
                      Lines{kTag + std::to_string(c.result) + kEnd});
        EXPECT_EQ(mirror_.Rows("SELECT * FROM ActiveOIDMapping"), c.rows);
    }
    // The statement survives a failure.
    EXPECT_EQ(DeleteObjectByOID(0xFFFFFFFE), 0);
    EXPECT_EQ(mirror_.Rows("SELECT * FROM ActiveOIDMapping"), Lines());
}

TEST_F(ClearingTest, ADeleteThatStaysBusyCosts200Attempts)
{
    FailSteps("WHERE Oid", SQLITE_BUSY, kForever);
    EXPECT_EQ(DeleteObjectByOID(5), -1);
    EXPECT_EQ(StepCount("WHERE Oid"), 200);
    EXPECT_EQ(SleptMicroseconds(), 200 * 110000);
    CaptureLog(1);
    EXPECT_EQ(DeleteObjectByOID(5), -1);
    EXPECT_EQ(LogLines().size(), 4U);
}

} // namespace
} // namespace qdb::test
