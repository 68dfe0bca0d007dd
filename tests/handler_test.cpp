// What the three handlers owe each other: order, silence without a database,
// clean statements after every failure. What single failures leave behind and
// log is recorded in the stream.

#include "core/lock.h"
#include "tests/support/handler_fixture.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

namespace qdb::test
{
namespace
{

TEST_F(Handler, NothingHappensWithoutADatabase)
{
    const Bytes object = Status(256, "p", 1);
    EXPECT_EQ(Create(object), 0);
    Announced();
    Restart(3);
    EXPECT_EQ(DeleteObject(*FindRow(kStatus), nullptr), -1);
    sqlite3 *const handle = QDVdbHandle.exchange(nullptr);
    EXPECT_EQ(Create(object), -1);
    EXPECT_EQ(Refresh(object), -1);
    EXPECT_EQ(Delete(object), -1);
    QDVdbHandle = handle;
    EXPECT_EQ(CountLog("[1001]Invalid input parameters. Exiting:"), 2);
    EXPECT_EQ(CountLog("[1001]Error: DB handle not available"), 2);
    EXPECT_EQ(StepCount("") + PrepareCount(""), 0);
    EXPECT_EQ(Announced(), Lines{});
    EXPECT_EQ(Delete(object), 0);
}

// Its stored form is that of no OID.
TEST_F(Handler, HandlesTheGreatestOid)
{
    const Bytes object = Status(0xFFFFFFFF, "p", 1);
    EXPECT_EQ(Create(object), 0);
    EXPECT_EQ(mirror_.Rows("SELECT OID FROM TblDMStatus_Child_Obj"),
              Lines{"-1"});
    EXPECT_EQ(GetObjType(0xFFFFFFFF), kStatus);
    EXPECT_EQ(Delete(object), 0);
    EXPECT_EQ(Create(object), 0);
    EXPECT_EQ(Kinds(), (Lines{"Added", "Removed", "Added"}));
}

TEST_F(Handler, CreateWaitsForTheDeleteOfItsOid)
{
    const Bytes object = Status(256, "p", 1);
    EXPECT_EQ(Create(object), 0);
    Announced();
    Restart();
    std::thread remover;
    std::thread creator;
    {
        // Holds the delete at its first statement.
        const MutexLock step(SqliteStepMutex);
        remover = std::thread(
            [&]
            {
                EXPECT_EQ(Delete(object), 0);
            });
        WaitForLog("[1001] GetRowData_1001 Entry for OID: 256");
        creator = std::thread(
            [&]
            {
                EXPECT_EQ(Create(object), 0);
            });
        WaitForLog("[1001]Inside CreateObj_1001 sleeping till delete complete");
    }
    remover.join();
    creator.join();
    EXPECT_EQ(Kinds(), (Lines{"Removed", "Added"}));
    // It went straight in: the delete was over.
    EXPECT_EQ(StepCount(kMapping), 1);
}

// Fails the first, the second, ... call of an operation until it goes through
// without one. Whatever failed, nothing hangs, what is told is true, and the
// next operations find clean statements.
class Sweep : public Handler
{
  protected:
    // Returns how many calls the operation makes.
    int Run(bool prepares, int status, const std::function<int()> &operation)
    {
        for (int call = 0; call < 100; ++call)
        {
            SCOPED_TRACE("call " + std::to_string(call));
            Prepare();
            ClearSqliteFaults();
            if (prepares)
            {
                FailPrepares("", status, 1, call);
            }
            else
            {
                FailSteps("", status, 1, call);
            }
            const int result = operation();
            const bool reached =
                (prepares ? PrepareCount("") : StepCount("")) > call;
            ClearSqliteFaults();
            Check(result, reached ? status : 0);
            if (!reached)
            {
                return call;
            }
        }
        ADD_FAILURE() << "never goes through";
        return 0;
    }

  private:
    // One object with all that a row can have; another is still to come.
    void Prepare()
    {
        standin::Reset();
        PutObject(0x1100, 0x50);
        for (const uint32_t oid : {256u, 257u})
        {
            const uint32_t parents[] = {0x50};
            EXPECT_EQ(standin::PutRawObject(List(oid, "1, 2"), parents), "");
        }
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        EXPECT_EQ(Create(List(256, "1, 2")), 0);
        ForgetStatements();
        Announced();
    }

    void Check(int result, int fault)
    {
        EXPECT_TRUE(result == 0 || fault != 0) << result;
        EXPECT_TRUE(result != SQLITE_CORRUPT || fault == SQLITE_CORRUPT);
        EXPECT_EQ(Announced().size(), result == 0 ? 1U : 0U);
        // A row has its mapping; the schema sees to the rest.
        EXPECT_EQ(mirror_.Value("SELECT count(*) FROM "
                                "TblSoftwareInventoryMetaDataObject WHERE OID "
                                "NOT IN (SELECT OID FROM ActiveOIDMapping)"),
                  "0");
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        EXPECT_EQ(Create(List(300, "7")), 0);
        EXPECT_EQ(Refresh(List(300, "8")), 0);
        EXPECT_EQ(mirror_.Rows("SELECT OID, VAL FROM "
                               "INTEGERARR_TblSoftwareInventoryMetaDataObject"),
                  Lines{"300|8"});
        EXPECT_EQ(Delete(List(300, "")), 0);
        EXPECT_EQ(Kinds(), (Lines{"Added", "Changed", "Removed"}));
    }
};

TEST_F(Sweep, EveryStatementFailsOnce)
{
    const struct
    {
        const char *name;
        std::function<int()> run;
        int steps;
        int prepares;
    } operations[] = {
        {"create",
         []
         {
             return Create(List(257, "1, 2"));
         },
         10, 7},
        {"refresh",
         []
         {
             return Refresh(List(256, "3, 4, 5"));
         },
         13, 4},
        {"delete",
         []
         {
             return Delete(List(256, ""));
         },
         5, 3},
    };
    for (const auto &operation : operations)
    {
        SCOPED_TRACE(operation.name);
        for (const int status : {SQLITE_ERROR, SQLITE_BUSY, SQLITE_CORRUPT,
                                 SQLITE_CONSTRAINT, SQLITE_NOMEM, SQLITE_DONE})
        {
            SCOPED_TRACE(status);
            EXPECT_EQ(Run(false, status, operation.run), operation.steps);
        }
        for (const int status : {SQLITE_ERROR, SQLITE_CORRUPT})
        {
            SCOPED_TRACE(status);
            EXPECT_EQ(Run(true, status, operation.run), operation.prepares);
        }
    }
}

// A read of array elements that meets ABORT before its first row begins again;
// behind it there is no array, and never one that begins twice.
TEST_F(Handler, AnArrayIsReadWholeOrNotAtAll)
{
    const std::string read = "FROM INTEGERARR_Tbl";
    const auto element = [](int index, int value)
    {
        return R"({"ARR_INDEX": )" + std::to_string(index) + R"(, "VAL": )" +
               std::to_string(value) + "}";
    };
    const struct
    {
        const char *name;
        int (*run)();
        int status;
    } operations[] = {
        {"Added",
         []
         {
             return Create(List(7, "1, 2"));
         },
         -1},
        {"Changed",
         []
         {
             return Refresh(List(7, "3, 4"));
         },
         SQLITE_ABORT},
        {"Removed",
         []
         {
             return Delete(List(7, ""));
         },
         -1},
    };
    for (const auto &operation : operations)
    {
        for (int skipped = 2; skipped >= 0; --skipped)
        {
            SCOPED_TRACE(std::string(operation.name) + " after " +
                         std::to_string(skipped));
            mirror_.Rows("DELETE FROM ActiveOIDMapping");
            if (*operation.name != 'A')
            {
                ASSERT_EQ(Create(List(7, "1, 2")), 0);
            }
            Announced();
            Restart();
            FailSteps(read, SQLITE_ABORT, 1, skipped);
            EXPECT_EQ(operation.run(), skipped == 0 ? 0 : operation.status);
            ClearSqliteFaults();
            const Lines announced = Announced();
            EXPECT_EQ(CountLog("[801] Get of array data failed with ret = 4"),
                      skipped == 0 ? 0 : 1);
            ASSERT_EQ(announced.size(), skipped == 0 ? 1U : 0U);
            if (skipped == 0)
            {
                const int first = *operation.name == 'C' ? 3 : 1;
                EXPECT_NE(announced[0].find(R"("ObjTypeList": [)" +
                                            element(0, first) + ", " +
                                            element(1, first + 1) + "]"),
                          std::string::npos)
                    << announced[0];
            }
        }
    }
}

} // namespace
} // namespace qdb::test
