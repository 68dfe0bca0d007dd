// Removal of object rows, which all goes through the mapping table.
#include "core/state.h"
#include "db/clearing.h"
#include "tests/support/db_fixture.h"

#include <algorithm>

namespace qdb::test
{
namespace
{

// Objects 1 and 2 of type 0x16 and one of each configuration type, with the
// rows that their removal goes by.
constexpr char kObjects[] =
    "PRAGMA synchronous = OFF;"
    "DELETE FROM ActiveOIDMapping;"
    "INSERT INTO ActiveOIDMapping VALUES(1, 0x16), (2, 0x16), (3, 0x4051),"
    " (4, 0x4052), (5, 0x4053), (6, 0x4054);"
    "INSERT INTO TblIntAttribute(OID) VALUES(3);"
    "INSERT INTO TblStrAttribute(OID) VALUES(4);"
    "INSERT INTO TblEnumAttribute(OID) VALUES(5);"
    "INSERT INTO TblPasswdAttribute(OID) VALUES(6);";

constexpr char kOids[] =
    "SELECT ifnull(group_concat(OID, ''), '') FROM ActiveOIDMapping";
constexpr char kAllThere[] = "123456";

class ClearingTest : public DbTest
{
  protected:
    void Fill()
    {
        ASSERT_EQ(mirror_.Rows(kObjects), Lines());
        ASSERT_EQ(mirror_.Value(kOids), kAllThere);
        Restart();
    }
};

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
        const char *left; // of the OIDs, when it worked
        const char *message;
    } kCalls[] = {
        {"delete from ActiveOIDMapping", ClearAll, "",
         "Could not removed from ActiveOIDMapping Table. Error: -1"},
        {"delete from ActiveOIDMapping where ObjType=22", ClearType, "3456",
         "Could not removed from 16 Table. Error: -1"},
        {"INNER JOIN TblIntAttribute", ClearCfgMgrData, "12",
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
        {"busy 99 times",      {{5, 99}},     {},        0,  100, 99,  0, 0},
        {"busy 100 times",     {{5, 100}},    {},        -1, 100, 100, 1, 0},
        {"invalid 100 times",  {{8216, 100}}, {},        -1, 100, 0,   1, 0},
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
            Fill();
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

// After a failure the later tables are left alone.
TEST_F(ClearingTest, ConfigurationIsClearedTableByTable)
{
    Fill();
    FailSteps("TblStrAttribute", SQLITE_CONSTRAINT, 1);
    EXPECT_EQ(ClearCfgMgrData(), -1);
    EXPECT_EQ(PrepareCount("INNER JOIN"), 4);
    EXPECT_EQ(mirror_.Value(kOids), "12456");
    Fill();
    FailPrepares("TblStrAttribute", SQLITE_ERROR, 1);
    EXPECT_EQ(ClearCfgMgrData(), -1);
    EXPECT_EQ(PrepareCount("INNER JOIN"), 2);
    EXPECT_EQ(mirror_.Value(kOids), "12456");
}

} // namespace
} // namespace qdb::test
