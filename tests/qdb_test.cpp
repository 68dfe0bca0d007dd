// qdb as its user sees it, on the mirror of a real service.
#include "tests/support/private_bus.h"
#include "tests/support/program.h"
#include "tests/support/service_process.h"
#include "tools/schema_sql.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

namespace qdb::test
{
namespace
{

struct Case
{
    const char *arguments; // DB stands for the database's option
    std::string expected;
};

class QdbTool : public testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        bus_ = std::make_unique<PrivateBus>();
        ServiceOptions options;
        options.scenario = Server(3);
        service_ = std::make_unique<ServiceProcess>(options);
        service_->Start();
        ASSERT_TRUE(service_->WaitReady());
    }
    static void TearDownTestSuite()
    {
        EXPECT_EQ(service_->Stop(), 0);
        service_.reset();
        bus_.reset();
    }

    static std::string DatabaseOption()
    {
        return "--database " + service_->Root().Database();
    }

    static std::string Run(std::string arguments)
    {
        const size_t at = arguments.find(" DB");
        if (at != std::string::npos)
        {
            arguments.replace(at + 1, 2, DatabaseOption());
        }
        return Qdb(arguments);
    }

    static inline std::unique_ptr<PrivateBus> bus_;
    static inline std::unique_ptr<ServiceProcess> service_;
};

TEST_F(QdbTool, PrintsTablesAndRows)
{
    const Case cases[] = {
        // clang-format off
        {"tables DB --csv | grep -E '^(table|TblMemoryInfo),'", "table,rows\nTblMemoryInfo,3\n"},
        {"tables DB | grep -cE '^Tbl[A-Za-z0-9_]+ +[0-9]+$'", std::to_string(ObjectTables().size()) + "\n"},
        {"tables DB --json | grep -F TblProbeObj", "{\"table\": \"TblProbeObj\", \"rows\": 3}\n"},

        {"get DB TblMemoryInfo --column Key --column OID", "Key     OID\nDIMM0  4096\nDIMM1  4097\nDIMM2  4098\n"},
        {"get DB TblMemoryInfo 4097 --column Key --csv", "Key\nDIMM1\n"},
        {"get DB TblMemoryInfo 0x1001 --column Key --csv", "Key\nDIMM1\n"},
        {"get DB --column oid TblMemoryInfo DIMM2 --json", "{\"OID\": 4098}\n"},
        {"get DB TblMemoryInfo DIMM2 --json | grep -c '\"Speed\": 0, '", "1\n"},
        // Arrays are columns like others.
        {"get DB TblFanExtObj --csv | grep -c VariableSpeed", "1\n"},

        {"sql DB 'SELECT OID, Key FROM TblMemoryInfo WHERE OID > 4096'", " OID  Key\n4097  DIMM1\n4098  DIMM2\n"},
        {"sql DB --json \"SELECT 1.5 AS a, NULL AS b, x'00ff' AS c\"", "{\"a\": 1.5, \"b\": null, \"c\": \"x'00ff'\"}\n"},
        {"sql DB --csv 'PRAGMA user_version; -- no more'", "user_version\n" + std::to_string(kSchemaVersion) + "\n"},
        {"sql DB \"SELECT name FROM pragma_table_info('TblMemoryInfo') "
         "WHERE name = 'Speed'\"", "name\nSpeed\n"},
        {"sql DB \"SELECT char(27, 155) AS t\"", "t\n\\u001b\\u009b\n"},
        // clang-format on
    };
    for (const Case &item : cases)
    {
        EXPECT_EQ(Run(item.arguments), item.expected) << item.arguments;
    }
}

TEST_F(QdbTool, SaysWhatIsWrong)
{
    const std::string refused =
        "qdb: only statements that read are run here\nexit 1\n";
    const std::string one = "qdb: one statement is wanted\nexit 1\n";
    const std::string none = "qdb: no database at /nowhere/x\nexit 1\n";
    const Case cases[] = {
        // clang-format off
        {"get DB TblMemoryInfo 5", "qdb: no 5 in TblMemoryInfo\nexit 1\n"},
        {"get DB TblMemoryInfo nobody", "qdb: no nobody in TblMemoryInfo\nexit 1\n"},
        {"get DB TblMemoryInfo --column Sped", "qdb: no column Sped in TblMemoryInfo\nexit 1\n"},
        {"get DB TblNone", "qdb: no table TblNone, see qdb tables\nexit 1\n"},
        {"get --database /nowhere/x TblMemoryInfo", none},
        {"tables --database /nowhere/x", "qdb: no database with tables at /nowhere/x\nexit 1\n"},
        {"sql --database /nowhere/x 'SELECT 1'", none},
        {"sql --database /dev/null 'SELECT a'", "qdb: no such column: a\nexit 1\n"},
        {"sql --database / 'SELECT 1'", "qdb: /: unable to open database file\nexit 1\n"},

        {"sql DB 'DELETE FROM TblMemoryInfo'", refused},
        {"sql DB 'CREATE TABLE x(i)'", refused},
        {"sql DB \"ATTACH '/tmp/qdb-test-made' AS x\"", refused},
        {"sql DB \"VACUUM INTO '/tmp/qdb-test-made'\"", refused},
        {"sql DB 'BEGIN EXCLUSIVE'", refused},
        {"sql DB 'CREATE TEMP TABLE x(i)'", refused},
        {"sql DB 'PRAGMA user_version = 7'", refused},
        {"sql DB 'SELECT 1; DELETE FROM TblMemoryInfo'", one},
        {"sql DB ''", one},
        {"sql DB 'SELEC 1'", "qdb: near \"SELEC\": syntax error\nexit 1\n"},
        {"sql DB 'SELECT 1' >/dev/full", "qdb: standard output: No space left on device\nexit 1\n"},

        {"watch DB TblNone", "qdb: no table TblNone, see qdb tables\nexit 1\n"},
        {"watch DB --pipe /dev/null", "qdb: /dev/null: not a named pipe\nexit 1\n"},
        // clang-format on
    };
    const std::string there = service_->Root().Database();
    EXPECT_EQ(Qdb("schema create " + there),
              "qdb schema: " + there + ": exists already\nexit 1\n");
    for (const Case &item : cases)
    {
        EXPECT_EQ(Run(item.arguments), item.expected) << item.arguments;
    }
    EXPECT_EQ(QueryValue(service_->Root().Database(),
                         "SELECT count(*) FROM TblMemoryInfo"),
              "3");
}

TEST_F(QdbTool, TellsWrongUsageByStatusTwoAndHelpsWithEachCommand)
{
    for (const char *arguments :
         {"", "nonsense", "tables --nonsense", "tables --json --csv", "get",
          "sql", "watch --pipe", "wait", "wait ready x", "wait T --timeout -1",
          "wait T --timeout soon", "schema", "schema nonsense",
          "schema create"})
    {
        EXPECT_EQ(Run(std::string(arguments) + " >/dev/null 2>&1"), "exit 2\n")
            << arguments;
    }
    for (const char *command :
         {"", "tables", "get", "sql", "watch", "wait", "schema"})
    {
        EXPECT_EQ(Run(std::string(command) +
                      " --help | grep -c 'Exit status: 0 fine, 1 failed or not "
                      "found, 2 wrong usage, 3 not in time (wait).'"),
                  "1\n")
            << command;
    }
}

TEST_F(QdbTool, WaitsForReadinessAndRows)
{
    const Case cases[] = {
        // clang-format off
        {"wait DB ready --timeout 30", ""},
        {"wait DB TblMemoryInfo --timeout 0", ""},
        {"wait DB TblMemoryInfo 'Key = \"DIMM1\" -- the second' --timeout 0", ""},
        {"wait DB TblMemoryInfo 'OID = 5' --timeout 0.2", "qdb: not in time\nexit 3\n"},
        {"wait DB ready --bus unix:path=/nowhere/x --timeout 0.2", "qdb: not in time: the bus can't be reached\nexit 3\n"},
        {"wait TblMemoryInfo --database /nowhere/x --timeout 0.2", "qdb: not in time\nexit 3\n"},
        {"wait DB TblNone", "qdb: no such table: TblNone\nexit 1\n"},
        {"wait DB TblMemoryInfo 'OID ='", "qdb: near \")\": syntax error\nexit 1\n"},
        // clang-format on
    };
    for (const Case &item : cases)
    {
        EXPECT_EQ(Run(item.arguments), item.expected) << item.arguments;
    }

    Program wait = StartQdb({"wait", "TblMemoryInfo", "Speed = 3201",
                             "--database", service_->Root().Database()});
    service_->SetSpeed(3201);
    EXPECT_EQ(wait.End(0), 0) << wait.Output();
}

// --- The service's database is never held ----------------------------------

TEST_F(QdbTool, HoldsNoDatabaseWhileItsOutputWaitsAndEndsWithItsReader)
{
    const TempRoot root;
    root.MakeDatabase();
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    // More than the pipe holds, so that it waits for the reader.
    Program tool =
        StartQdb({"sql", "--database", root.Database(),
                  "SELECT a.sql FROM sqlite_master a, sqlite_master b "
                  "LIMIT 5000"},
                 ends[1]);
    close(ends[1]);
    char byte = 0;
    ASSERT_EQ(read(ends[0], &byte, 1), 1) << tool.Output();
    EXPECT_EQ(Query(root.Database(), "CREATE TABLE x(i)"),
              std::vector<std::string>{});
    close(ends[0]);
    EXPECT_EQ(tool.End(0), 0);
    EXPECT_EQ(tool.Output(), "");
}

TEST_F(QdbTool, WaitsForADatabaseThatIsHeld)
{
    const TempRoot root;
    root.MakeDatabase();
    sqlite3 *holder = nullptr;
    ASSERT_EQ(sqlite3_open(root.Database().c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(
        sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr),
        SQLITE_OK);
    EXPECT_EQ(
        Qdb("wait TblMemoryInfo --timeout 0.2 --database " + root.Database()),
        "qdb: not in time\nexit 3\n");
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(
        Qdb("sql 'SELECT * FROM TblMemoryInfo' --database " + root.Database()),
        "qdb: the database is busy\nexit 1\n");
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(4));

    Program tool = StartQdb({"sql", "SELECT count(*) AS n FROM TblMemoryInfo",
                             "--csv", "--database", root.Database()});
    sqlite3_close(holder);
    EXPECT_EQ(tool.End(0), 0);
    EXPECT_EQ(tool.Output(), "n\n0\n");
}

} // namespace
} // namespace qdb::test
