// What the three handlers owe each other: order, silence without a database,
// clean statements after every failure. What single failures leave behind and
// log is recorded in the stream.

#include "core/lock.h"
#include "tests/support/handler_fixture.h"

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

// The greatest OID's stored form is that of no OID.
TEST_F(Handler, CreateWaitsForTheDeleteOfItsOid)
{
    for (const uint32_t oid : {256u, 0xFFFFFFFFu})
    {
        const Bytes object = Status(oid, "p", 1);
        EXPECT_EQ(Create(object), 0);
        EXPECT_EQ(GetObjType(oid), kStatus);
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
            WaitForLog("[1001] GetRowData_1001 Entry for OID: ");
            creator = std::thread(
                [&]
                {
                    EXPECT_EQ(Create(object), 0);
                });
            WaitForLog(
                "[1001]Inside CreateObj_1001 sleeping till delete complete");
        }
        remover.join();
        creator.join();
        EXPECT_EQ(Kinds(), (Lines{"Added", "Removed", "Added"}));
        // It went straight in: the delete was over.
        EXPECT_EQ(StepCount(kMapping), 1);
    }
}

// Fails the first, the second, ... call of an operation until it goes through
// without one. Whatever failed, nothing hangs, what is told is true, and the
// next operations find clean statements.
class Sweep : public Handler
{
  protected:
    struct Operation
    {
        const char *name;
        std::function<int()> run;
        int steps;
        int prepares;
        const char *elements; // of the row that it announces
    };

    // Returns how many calls the operation makes.
    int Run(const Operation &operation, bool prepares, int status)
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
            const int result = operation.run();
            const int calls = prepares ? PrepareCount("") : StepCount("");
            ClearSqliteFaults();
            Check(operation, result, calls > call ? status : 0);
            if (calls <= call)
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

    void Check(const Operation &operation, int result, int fault)
    {
        EXPECT_TRUE(result == 0 || fault != 0) << result;
        EXPECT_TRUE(result != SQLITE_CORRUPT || fault == SQLITE_CORRUPT);
        const Lines announced = Announced();
        EXPECT_EQ(announced.size(), result == 0 ? 1U : 0U);
        // What begins again after ABORT gives no element twice.
        EXPECT_TRUE(fault != SQLITE_ABORT || announced.empty() ||
                    announced[0].find(operation.elements) != std::string::npos)
            << announced[0];
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
    // clang-format off
    const Operation operations[] = {
        {"create", [] { return Create(List(257, "1, 2")); }, 10, 7,
         R"("ObjTypeList": [{"ARR_INDEX": 0, "VAL": 1}, {"ARR_INDEX": 1, "VAL": 2}])"},
        {"refresh", [] { return Refresh(List(256, "3, 4, 5")); }, 13, 4,
         R"("ObjTypeList": [{"ARR_INDEX": 0, "VAL": 3}, {"ARR_INDEX": 1, "VAL": 4}, {"ARR_INDEX": 2, "VAL": 5}])"},
        {"delete", [] { return Delete(List(256, "")); }, 5, 3,
         R"("ObjTypeList": [{"ARR_INDEX": 0, "VAL": 1}, {"ARR_INDEX": 1, "VAL": 2}])"},
    };
    // clang-format on
    for (const Operation &operation : operations)
    {
        SCOPED_TRACE(operation.name);
        for (const int status :
             {SQLITE_ERROR, SQLITE_ABORT, SQLITE_BUSY, SQLITE_CORRUPT,
              SQLITE_CONSTRAINT, SQLITE_NOMEM, SQLITE_DONE})
        {
            SCOPED_TRACE(status);
            EXPECT_EQ(Run(operation, false, status), operation.steps);
        }
        for (const int status : {SQLITE_ERROR, SQLITE_CORRUPT})
        {
            SCOPED_TRACE(status);
            EXPECT_EQ(Run(operation, true, status), operation.prepares);
        }
    }
}

} // namespace
} // namespace qdb::test
