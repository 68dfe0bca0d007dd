// The database file that qdb-schema makes, seen as the service sees it: through
// SQLite, with foreign keys on; and the program itself.
#include "objects/schema/rows.h"
#include "tests/support/temp_root.h"
#include "tools/schema_markdown.h"
#include "tools/schema_sql.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace qdb::test
{
namespace
{

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// A variable that whoever runs the tests sets.
std::string Environment(const char *name)
{
    const char *value = std::getenv(name);
    EXPECT_NE(value, nullptr) << name << " isn't set";
    return value ? value : "";
}

std::string ReadFile(const fs::path &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST(Schema, DeletingTheMappingRowTakesEverythingOfTheObject)
{
    const TempRoot root;
    root.MakeDatabase();
    std::string sql = "PRAGMA synchronous = OFF;"
                      "INSERT INTO ActiveOIDMapping VALUES (7, 1), (8, 1);"
                      "INSERT INTO ParentChildMapping VALUES (7, 1), (8, 7);";
    Lines names;
    for (const Table *table : ObjectTables())
    {
        names.emplace_back(table->name);
        sql += "INSERT INTO " + names.back() + " (OID) VALUES (7), (8);";
    }
    for (const SideTable *side : kSideTables)
    {
        names.emplace_back(side->name);
        sql += "INSERT INTO " + names.back() +
               " (OID, PROP, ARR_INDEX) VALUES (7, 'p', 0), (7, 'p', 1),"
               " (8, 'p', 0);";
    }
    sql += "DELETE FROM ActiveOIDMapping WHERE Oid = 7;";
    EXPECT_EQ(Query(root.Database(), sql), Lines{});
    EXPECT_EQ(
        Query(root.Database(), "SELECT OID, POID FROM ParentChildMapping"),
        Lines{"8|7"});
    for (const std::string &name : names)
    {
        EXPECT_EQ(Query(root.Database(), "SELECT OID FROM " + name), Lines{"8"})
            << name;
        // Without an index each delete would read all tables to their ends.
        EXPECT_NE(
            QueryValue(root.Database(), "EXPLAIN QUERY PLAN DELETE FROM " +
                                            name + " WHERE OID = 8")
                .find("SEARCH"),
            std::string::npos)
            << name;
    }
}

TEST(Schema, RefusesAndReplacesWhatTheServiceCountsOn)
{
    const TempRoot root;
    root.MakeDatabase();
    EXPECT_EQ(Query(root.Database(),
                    "INSERT INTO ActiveOIDMapping VALUES (7, 1);"
                    "INSERT OR REPLACE INTO TblStrAttribute (OID) VALUES (7);"
                    "INSERT OR REPLACE INTO TblStrAttribute (OID) VALUES (7);"
                    "INSERT OR REPLACE INTO ParentChildMapping VALUES (7, 1);"
                    "INSERT OR REPLACE INTO ParentChildMapping VALUES (7, 1);"
                    "SELECT count(*) FROM ParentChildMapping;"
                    "SELECT isRawData FROM TblStrAttribute;"
                    "SELECT count(*) FROM TblEtag;"),
              (Lines{"1", "0", "111"}));
    for (const char *sql :
         {"INSERT INTO ActiveOIDMapping VALUES (7, 2)",
          "INSERT INTO TblProbeObj (OID) VALUES (9)",
          "INSERT INTO ParentChildMapping VALUES (9, 7)",
          "INSERT INTO HbmInfoARR_TblDevProcessor (OID, PROP, ARR_INDEX)"
          " VALUES (9, 'Hbms', 0)"})
    {
        EXPECT_NE(QueryValue(root.Database(), sql).find("constraint failed"),
                  std::string::npos)
            << sql;
    }
}

class SchemaTool : public testing::Test
{
  protected:
    // Gives the exit status; what it prints goes to the file `out`, its errors
    // to `err`.
    int Run(const std::string &arguments)
    {
        const std::string command = Environment("QDB_TEST_SCHEMA") + ' ' +
                                    arguments + " >" + In("out") + " 2>" +
                                    In("err");
        const int status = std::system(command.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string In(const char *name) const
    {
        return root_.Path() + "/" + name;
    }

    Lines Files() const
    {
        Lines names;
        for (const auto &entry : fs::directory_iterator(root_.Path()))
        {
            if (entry.is_regular_file())
            {
                names.push_back(entry.path().filename());
            }
        }
        std::ranges::sort(names);
        return names;
    }

    TempRoot root_;
};

TEST_F(SchemaTool, CreateReplacesOnlyWhenForcedAndLeavesNothingBehind)
{
    const std::string path = In("live.db");
    ASSERT_EQ(Run("create " + path), 0) << ReadFile(In("err"));
    const std::string made = ReadFile(path);

    std::ofstream(path) << "something precious";
    EXPECT_EQ(Run("create " + path), 1);
    EXPECT_EQ(ReadFile(path), "something precious");
    EXPECT_EQ(ReadFile(In("err")),
              "qdb-schema: " + path + ": exists already\n");

    std::ofstream(path + "-journal") << "of the old file";
    EXPECT_EQ(Run("create --force " + path), 0);
    EXPECT_EQ(Run("create --force " + root_.Path() + "/no/x"), 1);
    fs::create_directory(path + "-journal");
    EXPECT_EQ(Run("create --force " + path), 1);
    EXPECT_EQ(ReadFile(path), made);
    EXPECT_EQ(Files(), (Lines{"err", "live.db", "out"}));
}

TEST_F(SchemaTool, PrintsTheSchemaAndTheReference)
{
    ASSERT_EQ(Run("sql"), 0);
    EXPECT_EQ(ReadFile(In("out")), SchemaSql());
    ASSERT_EQ(Run("markdown"), 0);
    EXPECT_EQ(ReadFile(In("out")), SchemaMarkdown());
    EXPECT_EQ(Run("no-such-command"), 1);
    // Layouts can't be derived from anything else: every change of one shows as
    // a changed line for someone to look at.
    EXPECT_TRUE(ReadFile(Environment("QDB_TEST_SOURCE") + "/docs/tables.md") ==
                SchemaMarkdown())
        << "docs/tables.md is out of date: qdb-schema markdown > "
           "docs/tables.md";
}

} // namespace
} // namespace qdb::test
