// The connection and the repeats of its statements, on a real file. Statuses
// are injected where SQLite can't be brought to give them.
#include "core/paths.h"
#include "core/state.h"
#include "db/clearing.h"
#include "db/connection.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "tests/support/db_fixture.h"
#include "tests/support/wait.h"

#include <filesystem>
#include <fstream>
#include <future>

namespace qdb::test
{
namespace
{

int Map()
{
    return insertinActiveOIDMapping(5, 0x15);
}

int Delete()
{
    return DeleteObjectByOID(5);
}

// A call of each function, and what it gives without a handle and when the OID
// is mapped.
const struct
{
    const char *sql;
    int (*call)();
    int without;
    int mapped;
} kCalls[] = {
    // clang-format off
    {"insert into ActiveOIDMapping", Map, -1, SQLITE_CONSTRAINT},
    {"INTO ParentChildMapping", [] { return InsertInParentChildMappingTable(5, 2); }, -1, 0},
    {"UPDATE TblEtag", [] { return InsertInTblEtag("TblProbeObj"); }, -1, 0},
    {"select ObjType", [] { return static_cast<int>(GetObjType(5)); }, 0, 0x15},
    {"WHERE Oid", Delete, -1, 0},
    {"where ObjType=22", [] { return ClearTblDatabyObjType(0x16); }, -1, 0},
    {"INNER JOIN TblIntAttribute", ClearCfgMgrData, -1, 0},
    // clang-format on
};

TEST_F(DbTest, OpenSetsTheOptionsOnce)
{
    int status = 0;
    const StatementPtr options = PrepareOnce(
        "SELECT journal_mode || cache_size || '|' || synchronous || "
        "foreign_keys || timeout FROM pragma_journal_mode, pragma_cache_size, "
        "pragma_synchronous, pragma_foreign_keys, pragma_busy_timeout",
        &status);
    EXPECT_EQ(StepStatement(options.get()), SQLITE_ROW);
    EXPECT_STREQ(
        reinterpret_cast<const char *>(sqlite3_column_text(options.get(), 0)),
        "off-1000|011000");
    sqlite3 *handle = QDVdbHandle;
    EXPECT_EQ(QDVDBInit(), 0);
    EXPECT_EQ(QDVdbHandle, handle);
    EXPECT_EQ(LogLines(), Lines{"QDVdbHandle not NULL."});
}

TEST(ConnectionTest, OpenDependsOnWhatIsThere)
{
    const std::string kNoDatabase = "error in executing sqlite3_exec 26\n";
    const struct
    {
        const char *name;
        void (*make)(const std::string &path);
        int result;
        Lines lines;
    } kCases[] = {
        // clang-format off
        {"no file", [](const std::string &) {}, 0, {}},
        {"a directory", [](const std::string &path) { std::filesystem::create_directory(path); }, -1, {"Cannot open database: unable to open database file\n"}},
        // All options but the last look into the file.
        {"no database", [](const std::string &path) { std::ofstream(path) << std::string(4096, 'x'); }, 0, Lines(3, kNoDatabase)},
        // clang-format on
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        const TempRoot root;
        gRuntimeRoot = root.Path().c_str();
        c.make(root.Database());
        Restart();
        EXPECT_EQ(QDVDBInit(), c.result);
        EXPECT_EQ(LogLines(), Lines{"Opening DB."} + c.lines);
        EXPECT_TRUE(std::filesystem::exists(root.Database()));
        // There are no tables, and each function fails for itself.
        EXPECT_EQ(ClearTableData("ActiveOIDMapping"), -1);
        EXPECT_EQ(GetObjType(5), 0U);
        EXPECT_EQ(CloseDatabase(), 0);
        EXPECT_EQ(QDVdbHandle, nullptr);
    }
    RestoreSleeps();
    gRuntimeRoot = "";
}

TEST_F(DbTest, CloseWaitsForStatements)
{
    int status = 0;
    StatementPtr statement = PrepareOnce("SELECT 1", &status);
    ASSERT_EQ(status, SQLITE_OK);
    EXPECT_EQ(CloseDatabase(), SQLITE_BUSY);
    EXPECT_EQ(SleptMicroseconds(), 100 * 110000);
    EXPECT_EQ(CountLog(kRetry), 100);
    EXPECT_NE(QDVdbHandle, nullptr);
    statement.reset();
    EXPECT_EQ(CloseDatabase(), 0);
    EXPECT_EQ(QDVDBInit(), 0);
}

TEST_F(DbTest, NothingRunsWithoutAHandle)
{
    sqlite3 *handle = QDVdbHandle.exchange(nullptr);
    for (const auto &c : kCalls)
    {
        SCOPED_TRACE(c.sql);
        Restart();
        EXPECT_EQ(c.call(), c.without);
        EXPECT_EQ(CountLog("Error: DB handle not available"), 1);
        EXPECT_EQ(PrepareCount(""), 0);
    }
    QDVdbHandle = handle;
}

// What a repeat costs, and which failures end one, is recorded in the stream.
TEST_F(DbTest, StatusLoopFollowsItsSite)
{
    constexpr int kStatuses[] = {5, 8216, 6, 8216, 0};
    int calls = 0;
    int invalids = 0;
    EXPECT_EQ(RunStatusLoop(
                  {.pauseWhenBusy = false}, 11,
                  [&]
                  {
                      return kStatuses[calls++];
                  },
                  [&]
                  {
                      return ++invalids < 2 ? ZO_STATUS_INVALID_VALUE
                                            : ZO_STATUS_NO_SUCH_OBJECT;
                  }),
              256);
    EXPECT_EQ(calls, 4);
    EXPECT_EQ(SleepCount(), 0);
    EXPECT_EQ(execute_statement(nullptr), -1);
    EXPECT_EQ(LogLines(),
              (Lines{kRetry, kInvalid, kRetry, "retval = 256\n",
                     "Set ReturnStatus as Failure. ReturnStatus before update "
                     "= 11\n",
                     "Error: stmt is NULL"}));
}

// Looks at the step mutex from inside steps and sleeps.
std::atomic<int> gFree = 0;
std::atomic<int> gHeld = 0;

void LookAtStepMutex()
{
    const bool isFree = pthread_mutex_trylock(&SqliteStepMutex) == 0;
    ++(isFree ? gFree : gHeld);
    if (isFree)
    {
        pthread_mutex_unlock(&SqliteStepMutex);
    }
}

int LookAtStepMutexOf(unsigned, void *, void *, void *)
{
    LookAtStepMutex();
    return 0;
}

TEST_F(DbTest, TheStepMutexIsHeldInStepsAndNotInSleeps)
{
    gSkipConstraintCheck = 1;
    for (const auto &c : kCalls)
    {
        SCOPED_TRACE(c.sql);
        Restart();
        FailSteps(c.sql, SQLITE_BUSY, 3);
        SetSleepFunction(
            [](unsigned)
            {
                LookAtStepMutex();
            });
        gFree = gHeld = 0;
        c.call();
        EXPECT_EQ(gFree, 3);
        EXPECT_EQ(gHeld, 0);
        EXPECT_EQ(StepCount(c.sql), 4);

        // Called when a step begins to run, and at each of its rows. A progress
        // handler won't do: from SQLite 3.41 on it is also called in preparing.
        gFree = gHeld = 0;
        sqlite3_trace_v2(QDVdbHandle, SQLITE_TRACE_STMT | SQLITE_TRACE_ROW,
                         LookAtStepMutexOf, nullptr);
        EXPECT_EQ(c.call(), c.mapped);
        sqlite3_trace_v2(QDVdbHandle, 0, nullptr, nullptr);
        EXPECT_GT(gHeld, 0);
        EXPECT_EQ(gFree, 0);
    }
}

TEST_F(DbTest, ADeleteOutlastsTheLockOfAnotherProcess)
{
    EXPECT_EQ(Map(), 0);
    const OtherProcess other(mirror_.Root().Database());
    EXPECT_EQ(other.Run("BEGIN EXCLUSIVE"), SQLITE_OK);
    std::future<int> result = std::async(std::launch::async, Delete);
    EXPECT_TRUE(WaitUntil(
        []
        {
            return StepCount("DELETE FROM ActiveOIDMapping") >= 2;
        }));
    EXPECT_EQ(other.Run("COMMIT"), SQLITE_OK);
    EXPECT_EQ(result.get(), 0);
    EXPECT_EQ(mirror_.Rows("SELECT * FROM ActiveOIDMapping"), Lines{});
}

// Two that wait for each other's locks would both give up in the end.
TEST_F(DbTest, AWriterThatWaitsLetsTheOtherProcessFinish)
{
    const OtherProcess other(mirror_.Root().Database());
    int status = SQLITE_OK;
    const StatementPtr reader = PrepareOnce("SELECT * FROM TblEtag", &status);
    const StatementPtr writer =
        PrepareOnce("UPDATE TblEtag SET MultiRecordEtag = ?", &status);
    sqlite3_bind_text(writer.get(), 1, "ours", -1, SQLITE_STATIC);
    EXPECT_EQ(StepStatement(reader.get()), SQLITE_ROW);
    EXPECT_EQ(other.Run("BEGIN IMMEDIATE"), SQLITE_OK);
    EXPECT_EQ(other.Run("UPDATE TblEtag SET MultiRecordEtag = 'theirs'"),
              SQLITE_OK);
    EXPECT_EQ(StepStatement(writer.get()), SQLITE_BUSY);
    sqlite3_reset(reader.get());
    EXPECT_EQ(other.Run("COMMIT"), SQLITE_OK);
    EXPECT_EQ(StepStatement(writer.get()), SQLITE_DONE);
    EXPECT_EQ(mirror_.Rows("SELECT DISTINCT MultiRecordEtag FROM TblEtag"),
              Lines{"ours"});
}

// What cannot be undone, without a journal, aborts all others while any of them
// reads.
TEST_F(DbTest, AStatementOutlastsTheFailureOfAnother)
{
    int status = SQLITE_OK;
    static StatementPtr reader;
    reader = PrepareOnce("SELECT * FROM TblEtag", &status);
    EXPECT_EQ(StepStatement(reader.get()), SQLITE_ROW);
    EXPECT_EQ(InsertInParentChildMappingTable(77, 78), -1); // no such mapping
    SetSleepFunction(
        [](unsigned)
        {
            reader.reset();
        });
    EXPECT_EQ(InsertInTblEtag("TblProbeObj"), 0);
    EXPECT_NE(mirror_.Rows("SELECT MultiRecordEtag FROM TblEtag WHERE "
                           "TableName = 'TblProbeObj'"),
              Lines{"NULL"});
    EXPECT_EQ(reader, nullptr) << "it did wait";
}

} // namespace
} // namespace qdb::test
