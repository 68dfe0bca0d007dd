// The bookkeeping tables: which OIDs are mapped, their parents, the tables'
// tags.
#include "core/state.h"
#include "db/clearing.h"
#include "db/mapping.h"
#include "tests/support/db_fixture.h"

namespace qdb::test
{
namespace
{

using MappingTest = DbTest;

constexpr char kMappings[] = "SELECT * FROM ActiveOIDMapping";
constexpr char kLinks[] = "SELECT * FROM ParentChildMapping ORDER BY OID, POID";
constexpr char kInsert[] = "insert into ActiveOIDMapping";

// --- ActiveOIDMapping -----------------------------------------------------

constexpr uint32_t kOid = 0x80000010;

constexpr char kInserted[] =
    "Entry for ObjID:80000010 0x80000010 inserted in ActiveOIDMapping Table";
constexpr char kLastConstraint[] =
    "ActiveOIDMapping Table constraint error for objID:-2147483632 0x80000010 "
    "\n";
constexpr char kSkipped[] =
    "skip constraint loop case ObjId:80000010 0x80000010 could not inserted in "
    "ActiveOIDMapping Table. Error: 19";
constexpr char kLastBusy[] = "ActiveOIDMapping Table SQLITE_BUSY or "
                             "SQLITE_LOCKED error.objID:-2147483632 "
                             "objID:0x80000010 \n";
constexpr char kOther[] =
    "Entry could not be inserted in ActiveOIDMapping Table for ObjId- "
    "-2147483632 0x80000010. ReturnStatus before update = 11\n";
constexpr char kEntering[] =
    "Entering insertinActiveOIDMapping for OID- 0x80000010 -2147483632\n";
constexpr char kNotInserted[] =
    " Entry for -2147483632 0x80000010 could not inserted in ActiveOIDMapping "
    "Table. Error: ";
constexpr char kExiting[] =
    "Exiting insertinActiveOIDMapping for OID- 0x80000010 -2147483632\n";

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
    const char *line; // of the last attempt
};

// clang-format off
const InsertCase kInsertCases[] = {
    {"new",               0, "15",  {{19, 0}},        0,  1,   0,   0,     kInserted},
    {"mapped",            0, "15",  {},               19, 100, 0,   0,     kLastConstraint},
    {"mapped, tolerant",  0, "42",  {},               19, 100, 100, 1000,  kLastConstraint},
    {"mapped, tolerant",  0, "16",  {},               19, 100, 100, 1000,  kLastConstraint},
    {"mapped, paused",    0, "5e",  {},               19, 100, 100, 1000,  kLastConstraint},
    {"mapped, paused",    0, "d2",  {},               19, 100, 100, 1000,  kLastConstraint},
    {"mapped, paused",    0, "d3",  {},               19, 100, 100, 1000,  kLastConstraint},
    {"mapped, paused",    0, "e1",  {},               19, 100, 100, 1000,  kLastConstraint},
    {"mapped, paused",    0, "801", {},               19, 100, 100, 1000,  kLastConstraint},
    {"backlog",           1, "15",  {},               19, 1,   0,   0,     kSkipped},
    {"backlog, paused",   1, "801", {},               19, 1,   0,   0,     kSkipped},
    {"backlog, paused",   1, "e1",  {},               19, 1,   0,   0,     kSkipped},
    {"backlog, tolerant", 1, "42",  {},               19, 100, 100, 1000,  kLastConstraint},
    {"backlog, tolerant", 1, "16",  {},               19, 100, 100, 1000,  kLastConstraint},
    {"free in time",      0, "801", {{19, 99}},       0,  100, 99,  1000,  kInserted},
    {"busy",              0, "15",  {{5, kForever}},  5,  100, 0,   0,     kLastBusy},
    {"locked",            0, "42",  {{6, kForever}},  6,  100, 0,   0,     kLastBusy},
    {"backlog, busy",     1, "15",  {{5, kForever}},  5,  100, 100, 50000, kLastBusy},
    {"backlog, waited",   1, "16",  {{6, 99}},        0,  100, 99,  50000, kInserted},
    {"corrupt",           0, "42",  {{11, 1}},        11, 1,   0,   0,     kOther},
    {"corrupt later",     1, "15",  {{5, 2}, {11, 1}}, 11, 3,  2,   50000, kOther},
};
// clang-format on

Lines LinesOf(const InsertCase &c)
{
    const std::string tag = "[" + std::string(c.type) + "]";
    Lines lines = {tag + kEntering, tag + "Using prepared statement",
                   tag + c.line};
    if (c.result != 0)
    {
        lines.push_back(tag + kNotInserted + std::to_string(c.result));
    }
    lines.push_back(tag + kExiting);
    return lines;
}

TEST_F(MappingTest, InsertHasItsOwnRepeats)
{
    ASSERT_EQ(insertinActiveOIDMapping(1, 0x15), 0); // prepares
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
        EXPECT_EQ(LogLines(), LinesOf(c));
        const std::string row = "-2147483632|" + std::to_string(type);
        EXPECT_EQ(mirror_.Rows(kMappings), c.faults.empty()
                                               ? Lines{"-2147483632|9"}
                                           : c.result == 0 ? Lines{row}
                                                           : Lines());

        // The statement is as new afterwards.
        ClearSqliteFaults();
        EXPECT_EQ(insertinActiveOIDMapping(2, 0x15), 0);
    }
}

TEST_F(MappingTest, AStrangeStatusIsFinal)
{
    for (const int status : {1, 100, 8216})
    {
        SCOPED_TRACE(status);
        Restart();
        FailSteps(kInsert, status, 1);
        EXPECT_EQ(insertinActiveOIDMapping(kOid, 0x15), status);
        EXPECT_EQ(StepCount(kInsert), 1);
        EXPECT_EQ(SleepCount(), 0);
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

TEST_F(MappingTest, SeventeenTypesAreWaitedForInABacklog)
{
    std::vector<uint32_t> found;
    for (uint32_t type = 0; type <= 0x10000; ++type)
    {
        if (QdbObjTypeIsConstraintSkippable(type))
        {
            found.push_back(type);
        }
    }
    EXPECT_EQ(found,
              (std::vector<uint32_t>{0x16, 0x17, 0x1B, 0x42, 0x49, 0x802, 0x803,
                                     0x804, 0x805, 0x806, 0x807, 0x808, 0x809,
                                     0x80A, 0x80B, 0x80C, 0xD04}));
    EXPECT_FALSE(QdbObjTypeIsConstraintSkippable(0xFFFFFFFF));
}

// --- Statements -----------------------------------------------------------

int Map()
{
    static uint32_t oid = 0;
    return insertinActiveOIDMapping(++oid, 0x15);
}

int Tag()
{
    return InsertInTblEtag("TblProbeObj");
}

int Link()
{
    return InsertInParentChildMappingTable(1, 2);
}

int Delete()
{
    return DeleteObjectByOID(99);
}

TEST_F(MappingTest, SlotsAreFilledOnceAndOnlyBySuccess)
{
    const struct
    {
        const char *sql;
        int (*call)();
        std::string prefix;
        int madeLines; // when the slot is filled
    } kCases[] = {
        {kInsert, Map, "[15]", 1},
        {"UPDATE TblEtag", Tag, "", 1},
        {"INTO ParentChildMapping", Link, "", 1},
        {"WHERE Oid", Delete, "DeleteObjectByOID: ", 0},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.sql);
        Restart();
        FailPrepares(c.sql, SQLITE_ERROR, 1);
        EXPECT_EQ(c.call(), SQLITE_ERROR);
        EXPECT_EQ(CountLog(c.prefix + "sqlite3_prepare_v2 Error: 1"), 1);
        EXPECT_EQ(StepCount(c.sql), 0);
        mirror_.Rows("DELETE FROM ActiveOIDMapping;"
                     "INSERT INTO ActiveOIDMapping VALUES(1, 9)");
        EXPECT_EQ(c.call(), 0);
        EXPECT_EQ(CountLog("Prepare Statement successful"), c.madeLines);
        EXPECT_EQ(CountLog("Using prepared statement"), 0);
        EXPECT_EQ(c.call(), 0);
        EXPECT_EQ(CountLog(c.prefix + "Using prepared statement"), 1);
        EXPECT_EQ(PrepareCount(c.sql), 2);
    }
}

TEST_F(MappingTest, HighOidsAreNegativeAndFoundAgain)
{
    const struct
    {
        uint32_t oid;
        std::string stored;
    } kCases[] = {
        {0x7FFFFFFF, "2147483647"},
        {0x80000000, "-2147483648"},
        {0xFFFFFFFF, "-1"},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.stored);
        EXPECT_EQ(insertinActiveOIDMapping(c.oid, 0x2356), 0);
        EXPECT_EQ(InsertInParentChildMappingTable(c.oid, c.oid), 0);
        EXPECT_EQ(mirror_.Rows(kMappings), Lines{c.stored + "|9046"});
        EXPECT_EQ(mirror_.Rows(kLinks), Lines{c.stored + "|" + c.stored});
        EXPECT_EQ(GetObjType(c.oid), 0x2356U);
        EXPECT_EQ(DeleteObjectByOID(c.oid), 0);
        EXPECT_EQ(mirror_.Rows(kMappings), Lines());
        EXPECT_EQ(mirror_.Rows(kLinks), Lines());
    }
}

TEST_F(MappingTest, ObjTypeIsAnIntegerOrNothing)
{
    const std::string kStep = "GetObjType: sqlite3_step returns = ";
    const Lines kRead = {kStep + "0 for oid= -5 ", "GetObjType: num_cols = 1"};
    // clang-format off
    const struct
    {
        const char *name;
        const char *stored; // NULL: not mapped
        std::vector<Fault> prepareFaults;
        std::vector<Fault> stepFaults;
        uint32_t result;
        Lines lines;
    } kCases[] = {
        {"mapped", "225", {}, {}, 225, kRead + Lines{"Column: 225, "}},
        {"a real", "2.5", {}, {}, 0, kRead + Lines{"Column: 2.5, "}},
        {"a text", "'abc'", {}, {}, 0, kRead + Lines{"Column: abc, "}},
        {"not mapped", nullptr, {}, {}, 0, kRead},
        {"not prepared", "225", {{1, 1}}, {}, 0, {"sqlite3_prepare_v2 Error: 1"}},
        {"not run", "225", {}, {{1, 1}}, 0, Failure(1) + Lines{kStep + "-1 for oid= -5 "}},
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
        EXPECT_EQ(LogLines(), c.lines);
    }
}

// --- Tags and links -------------------------------------------------------

TEST_F(MappingTest, TagsAreTouchedOneTableAtATime)
{
    mirror_.Rows("UPDATE TblEtag SET MultiRecordEtag = 'old'");
    const char *kTouched =
        "SELECT TableName FROM TblEtag WHERE MultiRecordEtag <> 'old'";
    EXPECT_EQ(InsertInTblEtag("TblNoSuchTable"), 0);
    EXPECT_EQ(mirror_.Rows(kTouched), Lines());

    const std::string before = mirror_.Value("SELECT strftime('%s')");
    EXPECT_EQ(InsertInTblEtag("TblProbeObj"), 0);
    EXPECT_EQ(mirror_.Rows(kTouched), Lines{"TblProbeObj"});
    EXPECT_EQ(mirror_.Value("SELECT typeof(MultiRecordEtag) || "
                            "(MultiRecordEtag BETWEEN '" +
                            before +
                            "' AND strftime('%s')) FROM TblEtag WHERE "
                            "TableName = 'TblProbeObj'"),
              "text1");

    FailSteps("UPDATE TblEtag", SQLITE_CONSTRAINT, 1);
    CaptureLog(2);
    EXPECT_EQ(InsertInTblEtag("TblMemoryInfo"), -1);
    EXPECT_EQ(LogLines(), Lines{"Entry for TblMemoryInfo could not inserted in "
                                "TblEtag Table. Error: -1"});
    EXPECT_EQ(mirror_.Rows(kTouched), Lines{"TblProbeObj"});
    EXPECT_EQ(InsertInTblEtag("TblMemoryInfo"), 0);
    EXPECT_EQ(mirror_.Rows(kTouched).size(), 2U);
}

TEST_F(MappingTest, LinksNeedAMappedChild)
{
    ASSERT_EQ(insertinActiveOIDMapping(1, 0x15), 0);
    EXPECT_EQ(InsertInParentChildMappingTable(1, 2), 0);
    EXPECT_EQ(InsertInParentChildMappingTable(1, 2), 0);
    EXPECT_EQ(InsertInParentChildMappingTable(1, 3), 0);
    Restart();
    EXPECT_EQ(InsertInParentChildMappingTable(0xABC, 1), -1);
    EXPECT_EQ(LogLines(), Lines{"Using prepared statement"} + Failure(19) +
                              Lines{"Entry for 2748 ABC could not inserted in "
                                    "ParentChildMapping Table. Error: -1"});
    EXPECT_EQ(mirror_.Rows(kLinks), (Lines{"1|2", "1|3"}));
}

TEST_F(MappingTest, VanishedParentsAreLeftOut)
{
    PutObject(0x16, 100);
    PutObject(0x16, 102);
    standin::ObjectSpec spec;
    spec.type = 0x16;
    spec.oid = 200;
    spec.parents = {100, 101, 102};
    ASSERT_EQ(standin::CreateObject(spec, false), "");
    ASSERT_EQ(insertinActiveOIDMapping(200, 0x16), 0);
    const std::vector<uint8_t> child = standin::ObjectBytes(200);

    ASSERT_EQ(standin::SetFault("ZOILListParentOID", 0, 1), "");
    RefreshParentChildMapping(HeaderOf(child), 200);
    EXPECT_EQ(mirror_.Rows(kLinks), Lines());

    Restart();
    RefreshParentChildMapping(HeaderOf(child), 200);
    EXPECT_EQ(mirror_.Rows(kLinks), (Lines{"200|100", "200|102"}));
    EXPECT_EQ(LogLines(),
              (Lines{"ZOILGetObjByOID success for OID = 0xc8 and POID = 0x64 "
                     "\n",
                     "Prepare Statement successful",
                     "ZOILGetObjByOID returned NULL!!! for OID = 0x65\n",
                     "ZOILGetObjByOID success for OID = 0xc8 and POID = 0x66 "
                     "\n",
                     "Using prepared statement"}));
}

} // namespace
} // namespace qdb::test
