// Which OIDs are mapped, and to which types.
#include "core/state.h"
#include "db/mapping.h"
#include "tests/support/db_fixture.h"

namespace qdb::test
{
namespace
{

using MappingTest = DbTest;

constexpr char kInsert[] = "insert into ActiveOIDMapping";
constexpr uint32_t kOid = 0x80000010;

struct InsertCase
{
    const char *name;
    uint8_t backlog;
    const char *type;
    std::vector<Fault> faults; // none: the OID is mapped already
    int result;
    int attempts;
    int pauses;
    int microseconds; // of a pause
};

// clang-format off
const InsertCase kInsertCases[] = {
    {"new",               0, "15",  {{19, 0}},        0,  1,   0,   0},
    {"mapped",            0, "15",  {},               19, 100, 0,   0},
    {"mapped, tolerant",  0, "42",  {},               19, 100, 100, 1000},
    {"mapped, paused",    0, "5e",  {},               19, 100, 100, 1000},
    {"mapped, paused",    0, "801", {},               19, 100, 100, 1000},
    {"backlog",           1, "15",  {},               19, 1,   0,   0},
    {"backlog, paused",   1, "801", {},               19, 1,   0,   0},
    {"backlog, tolerant", 1, "42",  {},               19, 100, 100, 1000},
    {"free in time",      0, "801", {{19, 99}},       0,  100, 99,  1000},
    {"busy",              0, "15",  {{5, kForever}},  5,  100, 0,   0},
    {"locked",            0, "42",  {{6, kForever}},  6,  100, 0,   0},
    {"backlog, busy",     1, "15",  {{5, kForever}},  5,  100, 100, 50000},
    {"backlog, waited",   1, "16",  {{6, 99}},        0,  100, 99,  50000},
    {"corrupt",           0, "42",  {{11, 1}},        11, 1,   0,   0},
    {"corrupt later",     1, "15",  {{5, 2}, {11, 1}}, 11, 3,  2,   50000},
    {"a row",             0, "15",  {{100, 1}},       100, 1,  0,   0},
    {"invalid",           0, "15",  {{8216, 1}},      8216, 1, 0,   0},
};
// clang-format on

TEST_F(MappingTest, InsertHasItsOwnRepeats)
{
    for (const InsertCase &c : kInsertCases)
    {
        SCOPED_TRACE(std::string(c.name) + " " + c.type);
        const auto type =
            static_cast<uint32_t>(std::stoul(c.type, nullptr, 16));
        mirror_.Rows("PRAGMA synchronous = OFF; DELETE FROM ActiveOIDMapping");
        if (c.faults.empty())
        {
            mirror_.Rows("INSERT INTO ActiveOIDMapping VALUES(-2147483632, 9)");
        }
        Restart();
        gSkipConstraintCheck = c.backlog;
        FailSteps(kInsert, c.faults);
        EXPECT_EQ(insertinActiveOIDMapping(kOid, type), c.result);
        EXPECT_EQ(StepCount(kInsert), c.attempts);
        EXPECT_EQ(SleepCount(), c.pauses);
        EXPECT_EQ(SleptMicroseconds(), 1LL * c.pauses * c.microseconds);
        const std::string row = "-2147483632|" + std::to_string(type);
        EXPECT_EQ(mirror_.Rows("SELECT * FROM ActiveOIDMapping"),
                  c.faults.empty() ? Lines{"-2147483632|9"}
                  : c.result == 0  ? Lines{row}
                                   : Lines());

        // The statement is as new afterwards.
        ClearSqliteFaults();
        EXPECT_EQ(insertinActiveOIDMapping(2, 0x15), 0);
    }
}

TEST_F(MappingTest, FailuresOfTheInsertAreLoud)
{
    const std::string kEnd =
        "[15] Entry for 7 0x7 could not inserted in ActiveOIDMapping Table. "
        "Error: ";
    mirror_.Rows("INSERT INTO ActiveOIDMapping VALUES(7, 9)");
    Restart(1);
    insertinActiveOIDMapping(7, 0x15);
    FailSteps(kInsert, SQLITE_BUSY, 100);
    insertinActiveOIDMapping(7, 0x15);
    gSkipConstraintCheck = 1;
    insertinActiveOIDMapping(7, 0x15);
    EXPECT_EQ(LogLines(),
              (Lines{kEnd + "19",
                     "[15]ActiveOIDMapping Table SQLITE_BUSY or SQLITE_LOCKED "
                     "error.objID:7 objID:0x7 \n",
                     kEnd + "5",
                     "[15]skip constraint loop case ObjId:7 0x7 could not "
                     "inserted in ActiveOIDMapping Table. Error: 19",
                     kEnd + "19"}));
}

TEST_F(MappingTest, ObjTypeIsAnIntegerOrNothing)
{
    // clang-format off
    const struct
    {
        const char *name;
        const char *stored; // NULL: not mapped
        std::vector<Fault> prepareFaults;
        std::vector<Fault> stepFaults;
        uint32_t result;
    } kCases[] = {
        {"mapped", "225", {}, {}, 225},
        {"a real", "2.5", {}, {}, 0},
        {"a text", "'abc'", {}, {}, 0},
        {"not mapped", nullptr, {}, {}, 0},
        {"not prepared", "225", {{1, 1}}, {}, 0},
        {"not run", "225", {}, {{1, 1}}, 0},
    };
    // clang-format on
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        mirror_.Rows("PRAGMA synchronous = OFF; DELETE FROM ActiveOIDMapping");
        if (c.stored != nullptr)
        {
            mirror_.Rows("INSERT INTO ActiveOIDMapping VALUES(-5, " +
                         std::string(c.stored) + ")");
        }
        FinalizeMappingStatements();
        Restart();
        FailPrepares("select ObjType", c.prepareFaults);
        FailSteps("select ObjType", c.stepFaults);
        EXPECT_EQ(GetObjType(0xFFFFFFFB), c.result);
    }
}

} // namespace
} // namespace qdb::test
