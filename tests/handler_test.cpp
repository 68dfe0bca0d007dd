// The delete handler, and what the three handlers owe each other: order,
// silence, clean statements after every failure.

#include "core/lock.h"
#include "tests/support/handler_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <thread>

namespace qdb::test
{
namespace
{

TEST_F(Handler, DeleteAnnouncesTheLastRow)
{
    EXPECT_EQ(Create(Status(256, "p", 1)), 0);
    EXPECT_EQ(Create(Status(257, "q", 2)), 0);
    Announced();
    Restart(9);
    // Only the OID and the type count.
    EXPECT_EQ(Delete(MakeObject(kStatus, 256)), 0);
    const Lines lines = Logged();
    const std::string change =
        StatusChange("Removed", StatusRow("256", "p", 1));
    EXPECT_EQ(Announced(), Lines{change});
    EXPECT_EQ(mirror_.Rows("SELECT OID FROM ActiveOIDMapping"), Lines{"257"});
    EXPECT_EQ(mirror_.Rows("SELECT OID FROM TblDMStatus_Child_Obj"),
              Lines{"257"});
    const std::string json = change.substr(8);
    const auto at = [&](const std::string &line)
    {
        return std::ranges::find(lines, line) - lines.begin();
    };
    const auto end = static_cast<long>(lines.size());
    EXPECT_EQ(at("DeleteObj_1001 Entry!!!\n"), 0);
    EXPECT_EQ(at("[1001] DeleteObj_1001 Entry for OID: 256"), 1);
    EXPECT_LT(at("[1001]get row function returns status = 0"), end);
    EXPECT_LT(at("Json_Out_Str = " + json), end);
    EXPECT_EQ(at("[1001] DeleteObj_1001 Exit for OID: 256,status:0"), end - 2);
    EXPECT_EQ(at("DeleteObj_1001 Exit!!!\n"), end - 1);
}

TEST_F(Handler, DeleteThatFailsChangesNothing)
{
    struct Case
    {
        const char *name;
        bool row;
        Faults faults;
        int result;
        Lines lines; // up to level 3
    };
    const std::string kDelete = "DELETE FROM ActiveOIDMapping WHERE Oid";
    const std::string kNotDeleted =
        "DeleteObjectByOID: Entry for 256 100 could not deleted. Error: -1";
    const Lines kUnread = {"DEL[1001] Error in sending dbus signal on delete "
                           "row for OID: 256"};
    const Lines kTwice = {
        kNotDeleted,
        "First Attempt  got failed to for 100 try  delete....Let  Try...\n",
        kNotDeleted, "Retry 2nd attempt  got failed to delete for 100...\n"};
    // clang-format off
    const Case cases[] = {
        {"no row", false, {{}, {}}, -1, kUnread},
        {"not readable", true, {{{kRead, {1, 1}}}, {}}, -1, kUnread},
        {"read corrupt", true, {{{kRead, {11, 1}}}, {}}, 11, kUnread},
        {"not prepared", true, {{}, {{kDelete, {1, 1}}}}, -1, {}},
        {"not prepared, corrupt", true, {{}, {{kDelete, {11, 1}}}}, 11, {}},
        {"fails twice", true, {{{kDelete, {1, 2}}}, {}}, -1, kTwice},
        {"corrupt at last", true, {{{kDelete, {1, 1}}, {kDelete, {11, 1}}}, {}}, 11, kTwice},
        {"busy 200 times", true, {{{kDelete, {5, 200}}}, {}}, -1, kTwice},
    };
    // clang-format on
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        if (test.row)
        {
            EXPECT_EQ(Create(Status(256, "p", 1)), 0);
        }
        else
        {
            mirror_.Rows("INSERT INTO ActiveOIDMapping VALUES (256, 4097)");
        }
        ForgetStatements();
        Announced();
        Restart(3);
        test.faults.Arm();
        EXPECT_EQ(Delete(MakeObject(kStatus, 256)), test.result);
        EXPECT_EQ(LogLines(), test.lines);
        ClearSqliteFaults();
        EXPECT_EQ(Count("ActiveOIDMapping", 256), "1");
        EXPECT_EQ(Count(kStatusTable, 256), test.row ? "1" : "0");
        EXPECT_EQ(Announced(), Lines{});
        // A create of the OID isn't held up by it, and finds it mapped.
        EXPECT_EQ(Create(Status(256, "p", 2)), -1);
        EXPECT_EQ(Delete(MakeObject(kStatus, 256)), test.row ? 0 : -1);
        Announced();
    }
}

// The line that ends a delete is for those that got as far as the row.
TEST_F(Handler, DeleteThatFailsLogsNoEnd)
{
    EXPECT_EQ(Create(Status(256, "p", 1)), 0);
    Restart();
    FailSteps("DELETE FROM ActiveOIDMapping", SQLITE_ERROR, 2);
    EXPECT_EQ(Delete(MakeObject(kStatus, 256)), -1);
    EXPECT_EQ(CountLog("Delete_[1001]: DeleteObjectByOID failed with return "
                       "status -1"),
              1);
    EXPECT_EQ(CountLog("DeleteObj_1001 Exit for OID"), 0);
    EXPECT_EQ(Delete(MakeObject(kStatus, 257)), -1);
    EXPECT_EQ(CountLog("[1001] DeleteObj_1001 Exit for OID: 257,status:-1"), 1);
}

// The reader's own status is logged before the arrays are read.
TEST_F(Handler, AnArrayThatCannotBeReadFailsAfterTheRow)
{
    const std::string elements = "SELECT json_object('ARR_INDEX'";
    const struct
    {
        const char *name;
        int (*run)(const Bytes &object);
    } cases[] = {
        {"refresh",
         [](const Bytes &object)
         {
             return Refresh(object);
         }},
        {"delete",
         [](const Bytes &object)
         {
             return Delete(object);
         }},
    };
    EXPECT_EQ(Create(List(256, "1, 2")), 0);
    for (const auto &c : cases)
    {
        SCOPED_TRACE(c.name);
        Restart();
        FailSteps(elements, SQLITE_ERROR, 1);
        EXPECT_NE(c.run(List(256, "1, 2")), 0);
        EXPECT_EQ(CountLog("[801]get row function returns status = 0"), 1);
        EXPECT_EQ(CountLog("get row function returns status"), 1);
        EXPECT_EQ(CountLog("[801] Get of array data failed with ret = 1"), 1);
    }
    EXPECT_EQ(Count("TblSoftwareInventoryMetaDataObject", 256), "1");
}

TEST_F(Handler, NothingHappensWithoutADatabase)
{
    const Bytes object = Status(256, "p", 1);
    EXPECT_EQ(Create(object), 0);
    Announced();
    Restart();
    const ObjTypeRow &row = *FindRow(kStatus);
    EXPECT_EQ(row.DeleteObjFP(nullptr), -1);
    sqlite3 *const handle = QDVdbHandle.exchange(nullptr);
    EXPECT_EQ(Create(object), -1);
    EXPECT_EQ(Refresh(object), -1);
    EXPECT_EQ(Delete(object), -1);
    QDVdbHandle = handle;
    EXPECT_EQ(Logged(),
              (Lines{
                  "[1001]Invalid input parameters. Exiting:",
                  "[1001] CreateObj_1001 Entry for OID: 256",
                  "[1001]Error: DB handle not available 256",
                  "[1001] CreateObj_1001 Exit for OID: 256,status:-1 ret:-1",
                  "[1001] RefreshObj_1001 Entry for OID: 256",
                  "[1001]Error: DB handle not available oID:256",
                  " RefreshObj_1001 sqlite errormsg:",
                  "[1001] RefreshObj_1001 Exit for OID: 256,status:-1 ret:0",
                  "[1001]Invalid input parameters. Exiting:",
              }));
    EXPECT_EQ(StepCount("") + PrepareCount(""), 0);
    EXPECT_EQ(Announced(), Lines{});
    EXPECT_EQ(Delete(object), 0);
}

TEST_F(Handler, SilentUntilReady)
{
    DbusEventsEnabled = 0;
    EXPECT_EQ(Create(Status(256, "p", 1)), 0);
    EXPECT_EQ(Refresh(Status(256, "p", 2)), 0);
    EXPECT_EQ(Count(kStatusTable, 256), "1");
    EXPECT_EQ(Delete(Status(256, "p", 2)), 0);
    EXPECT_EQ(Count(kStatusTable, 256), "0");
    DbusEventsEnabled = 1;
    EXPECT_EQ(Announced(), Lines{});
}

// The greatest OID, whose stored form is that of no OID.
TEST_F(Handler, HandlesTheGreatestOid)
{
    constexpr uint32_t kOid = 0xFFFFFFFF;
    EXPECT_EQ(Create(Status(kOid, "p", 1)), 0);
    EXPECT_EQ(Refresh(Status(kOid, "q", 1)), 0);
    EXPECT_EQ(mirror_.Rows("SELECT OID, popName FROM TblDMStatus_Child_Obj"),
              Lines{"-1|q"});
    EXPECT_EQ(GetObjType(kOid), kStatus);
    EXPECT_EQ(Delete(Status(kOid, "", 0)), 0);
    EXPECT_EQ(Create(Status(kOid, "p", 1)), 0);
    const Lines changes = Announced();
    ASSERT_EQ(changes.size(), 4U);
    EXPECT_EQ(changes[2], StatusChange("Removed", StatusRow("-1", "q", 1)));
    EXPECT_EQ(changes[3], StatusChange("Added", StatusRow("-1", "p", 1)));
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
        EXPECT_TRUE(WaitUntil(
            []
            {
                return CountLog("[1001] GetRowData_1001 Entry for OID: 256") >
                       0;
            }));
        creator = std::thread(
            [&]
            {
                EXPECT_EQ(Create(object), 0);
            });
        EXPECT_TRUE(WaitUntil(
            []
            {
                return CountLog("[1001]Inside CreateObj_1001 sleeping till "
                                "delete complete ") > 0;
            }));
    }
    remover.join();
    creator.join();
    const std::string row = StatusRow("256", "p", 1);
    EXPECT_EQ(Announced(), (Lines{StatusChange("Removed", row),
                                  StatusChange("Added", row)}));
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
            const Bytes object = List(oid, "1, 2");
            const uint32_t parents[] = {0x50};
            EXPECT_EQ(standin::PutRawObject(object, parents), "");
        }
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        EXPECT_EQ(Create(List(256, "1, 2")), 0);
        ForgetStatements();
        Announced();
    }

    void Check(int result, int fault)
    {
        EXPECT_TRUE(result == 0 || (result != 0 && fault != 0)) << result;
        EXPECT_TRUE(result != SQLITE_CORRUPT || fault == SQLITE_CORRUPT);
        EXPECT_EQ(Announced().size(), result == 0 ? 1U : 0U);
        // A row has its mapping; the schema sees to the rest.
        EXPECT_EQ(mirror_.Value("SELECT count(*) FROM "
                                "TblSoftwareInventoryMetaDataObject WHERE OID "
                                "NOT IN (SELECT OID FROM ActiveOIDMapping)"),
                  "0");
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        EXPECT_EQ(Create(List(300, "7")), 0);
        Age("TblSoftwareInventoryMetaDataObject");
        EXPECT_EQ(Refresh(List(300, "8")), 0);
        EXPECT_EQ(Delete(List(300, "")), 0);
        const std::string table = "TblSoftwareInventoryMetaDataObject";
        EXPECT_EQ(
            Announced(),
            (Lines{Announcement("Added", table, ListRow(300, 1, Elements({7}))),
                   Announcement(
                       "Changed", table, ListRow(300, 1, Elements({8})),
                       R"(, "PropertiesChanged": {"ObjTypeList": )" +
                           Elements({8}) + R"(, "SingleRecordEtag": "T"})"),
                   Announcement("Removed", table,
                                ListRow(300, 1, Elements({8})))}));
    }
};

TEST_F(Sweep, EveryStatementFailsOnce)
{
    struct Operation
    {
        const char *name;
        std::function<int()> run;
        int steps;
        int prepares;
    };
    const Operation operations[] = {
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
         13, 5},
        {"delete",
         []
         {
             return Delete(List(256, ""));
         },
         5, 3},
    };
    for (const Operation &operation : operations)
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

} // namespace
} // namespace qdb::test
