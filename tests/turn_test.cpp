// Turns at the database: what is kept open between the statements of a handler
// is nobody else's business.

#include "db/connection.h"
#include "db/execute.h"
#include "db/turn.h"
#include "queues/event_queue.h"
#include "tests/support/db_fixture.h"
#include "tests/support/wait.h"

#include <atomic>
#include <thread>

namespace qdb::test
{
namespace
{

constexpr char kWrite[] = "UPDATE TblEtag SET MultiRecordEtag = 'x' WHERE "
                          "TableName = 'TblMemoryInfo'";
constexpr char kRead[] = "SELECT TableName FROM TblEtag";

// Whether a writer would get in now.
bool MayWrite(const OtherProcess &outsider)
{
    const bool may = outsider.Run("BEGIN EXCLUSIVE") == SQLITE_OK;
    outsider.Run("ROLLBACK");
    return may;
}

// Runs a statement as handlers do.
int RunOnce(const char *sql)
{
    int status = SQLITE_OK;
    const StatementPtr statement = PrepareOnce(sql, &status);
    EXPECT_EQ(status, SQLITE_OK);
    return StepStatement(statement.get());
}

TEST_F(DbTest, ATurnKeepsItsReadAndGivesItUp)
{
    const OtherProcess outsider(mirror_.Root().Database());
    const auto inTurn = [&](void (*end)())
    {
        DbTurn turn;
        EXPECT_EQ(RunOnce(kRead), SQLITE_ROW);
        EXPECT_TRUE(ReadIsKept());
        EXPECT_FALSE(MayWrite(outsider));
        end();
        turn.End();
    };
    // Nothing waits: the end of the turn is the end of the read.
    inTurn([] {});
    EXPECT_TRUE(MayWrite(outsider));
    // A repeat, a sleep and a busy database end it within the turn.
    inTurn(
        []
        {
            GiveUpTurn();
            EXPECT_FALSE(ReadIsKept());
            EXPECT_EQ(RunOnce(kRead), SQLITE_ROW);
            EXPECT_FALSE(ReadIsKept()) << "a read without a turn";
        });
    inTurn(
        []
        {
            JudgeAttempt(SQLITE_BUSY, {}, 0);
            EXPECT_FALSE(ReadIsKept());
        });
    // With more to do, and under the eyes of the watch, it outlives the turn
    // until nobody steps any more.
    const WorkAhead more;
    inTurn([] {});
    EXPECT_FALSE(ReadIsKept()) << "nobody watches";
    ReadWatch watch;
    const auto keepsOne = [&]
    {
        return WaitUntil(
            [&]
            {
                watch.Tick();
                inTurn([] {});
                return ReadIsKept();
            });
    };
    EXPECT_TRUE(keepsOne());
    EXPECT_EQ(RunOnce(kRead), SQLITE_ROW);
    watch.Tick();
    EXPECT_TRUE(ReadIsKept()) << "in use";
    watch.Tick();
    EXPECT_TRUE(MayWrite(outsider));
    EXPECT_TRUE(keepsOne());
    EXPECT_TRUE(GiveUpRead());
    EXPECT_FALSE(GiveUpRead());
}

// A writer who waits for our read gets in at our next write, which then waits
// for the writer as if there had been no read, and isn't seen to repeat.
TEST_F(DbTest, AWriterOutsideGetsInAtOurNextWrite)
{
    const OtherProcess outsider(mirror_.Root().Database());
    DbTurn turn;
    EXPECT_EQ(RunOnce(kRead), SQLITE_ROW);
    ASSERT_EQ(outsider.Run("BEGIN IMMEDIATE"), SQLITE_OK);
    ASSERT_EQ(outsider.Run("UPDATE TblEtag SET MultiRecordEtag = 'theirs'"),
              SQLITE_OK);
    ASSERT_EQ(outsider.Run("COMMIT"), SQLITE_BUSY) << "our read is in its way";
    std::atomic<bool> committed = false;
    std::thread writer(
        [&]
        {
            committed = WaitUntil(
                [&]
                {
                    return outsider.Run("COMMIT") == SQLITE_OK;
                });
        });
    EXPECT_EQ(RunOnce(kWrite), SQLITE_DONE);
    EXPECT_TRUE(committed);
    writer.join();
    EXPECT_EQ(mirror_.Rows("SELECT DISTINCT MultiRecordEtag FROM TblEtag "
                           "ORDER BY 1"),
              (Lines{"theirs", "x"}));
    EXPECT_EQ(LogLines(), Lines{});
    EXPECT_EQ(SleepCount(), 0);
}

// Each statement is committed when its step returns, read or no read, and what
// a failure says of itself isn't changed by the read.
TEST_F(DbTest, AStatementOfATurnStandsForItself)
{
    const DbTurn turn;
    EXPECT_EQ(RunOnce(kRead), SQLITE_ROW);
    constexpr char kMap[] = "INSERT INTO ActiveOIDMapping VALUES (1, 2)";
    EXPECT_EQ(RunOnce(kMap), SQLITE_DONE);
    EXPECT_EQ(mirror_.Value("SELECT ObjType FROM ActiveOIDMapping"), "2");
    EXPECT_EQ(RunOnce(kWrite), SQLITE_DONE);
    EXPECT_EQ(mirror_.Value("SELECT count(MultiRecordEtag) FROM TblEtag"), "1");
    int status = SQLITE_OK;
    const StatementPtr statement = PrepareOnce(kMap, &status);
    EXPECT_EQ(execute_statement(statement.get()), -1);
    EXPECT_STREQ(SqliteErrorMessage().c_str(),
                 "UNIQUE constraint failed: ActiveOIDMapping.OID");
    EXPECT_TRUE(ReadIsKept());
}

} // namespace
} // namespace qdb::test
