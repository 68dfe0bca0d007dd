// The database file that qdb-schema makes, seen as the service sees it: through
// SQLite, with foreign keys on; and the program itself.
#include "objects/schema/rows.h"
#include "tests/support/program.h"
#include "tests/support/temp_root.h"
#include "tests/support/text.h"
#include "tools/schema_markdown.h"
#include "tools/schema_sql.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

namespace qdb::test
{
namespace
{

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

TEST(Schema, DeletingTheMappingRowTakesEverythingOfTheObject)
{
    const TempRoot root;
    root.MakeDatabase();
    std::map<std::string, std::string> inserts = {
        {"ParentChildMapping", " VALUES (7, 1), (8, 7)"}};
    for (const Table *table : ObjectTables())
    {
        inserts[table->name] = " (OID) VALUES (7), (8)";
    }
    for (const SideTable *side : kSideTables)
    {
        inserts[side->name] = " (OID, PROP, ARR_INDEX) VALUES (7, 'p', 0), "
                              "(7, 'p', 1), (8, 'p', 0)";
    }
    std::string sql = "PRAGMA synchronous = OFF;";
    for (const auto &[table, values] : inserts)
    {
        // Nothing goes in without its mapping.
        EXPECT_EQ(QueryValue(root.Database(), "INSERT INTO " + table + values),
                  "FOREIGN KEY constraint failed");
        sql += "INSERT OR IGNORE INTO ActiveOIDMapping VALUES (7, 1), (8, 1);";
        // The second replaces the first.
        for (int i = 0; i < 2; ++i)
        {
            sql += "INSERT OR REPLACE INTO " + table + values + ';';
        }
    }
    sql += "DELETE FROM ActiveOIDMapping WHERE Oid = 7;";
    EXPECT_EQ(Query(root.Database(), sql), Lines{});
    for (const auto &[table, values] : inserts)
    {
        SCOPED_TRACE(table);
        EXPECT_EQ(Query(root.Database(), "SELECT OID FROM " + table),
                  Lines{"8"});
        // Without an index each delete would read all tables to their ends.
        EXPECT_NE(
            QueryValue(root.Database(), "EXPLAIN QUERY PLAN DELETE FROM " +
                                            table + " WHERE OID = 8")
                .find("SEARCH"),
            std::string::npos);
    }
}

class SchemaTool : public testing::Test
{
  protected:
    // Gives the exit status; what it prints goes to the file `out`, its errors
    // to `err`.
    int Run(const std::string &arguments)
    {
        const std::string command = "\"$QDB_TEST_SCHEMA\" " + arguments + " >" +
                                    In("out") + " 2>" + In("err");
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
    ASSERT_EQ(Run("create " + path), 0) << FileText(In("err"));
    const std::string made = FileText(path);

    std::ofstream(path) << "something precious";
    EXPECT_EQ(Run("create " + path), 1);
    EXPECT_EQ(FileText(path), "something precious");
    EXPECT_EQ(FileText(In("err")),
              "qdb-schema: " + path + ": exists already\n");

    std::ofstream(path + "-journal") << "of the old file";
    EXPECT_EQ(Run("create --force " + path), 0);
    EXPECT_EQ(Run("create --force " + root_.Path() + "/no/x"), 1);
    fs::create_directory(path + "-journal");
    EXPECT_EQ(Run("create --force " + path), 1);
    EXPECT_EQ(FileText(path), made);
    EXPECT_EQ(Files(), (Lines{"err", "live.db", "out"}));
}

TEST_F(SchemaTool, PrintsTheSchemaAndTheReference)
{
    ASSERT_EQ(Run("sql"), 0);
    EXPECT_EQ(FileText(In("out")), SchemaSql());
    ASSERT_EQ(Run("markdown"), 0);
    EXPECT_EQ(FileText(In("out")), SchemaMarkdown());
    EXPECT_EQ(Run("no-such-command"), 1);
    // Layouts can't be derived from anything else: every change of one shows as
    // a changed line for someone to look at.
    EXPECT_TRUE(FileText(SourceOf("docs/tables.md")) == SchemaMarkdown())
        << "docs/tables.md is out of date: qdb-schema markdown > "
           "docs/tables.md";
}

} // namespace
} // namespace qdb::test
