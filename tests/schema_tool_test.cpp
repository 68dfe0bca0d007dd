// The database file that qdb-schema makes, seen as the service sees it: through
// SQLite, with foreign keys on.
#include "objects/schema/rows.h"
#include "tools/schema_markdown.h"
#include "tools/schema_sql.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace qdb
{
namespace
{

namespace fs = std::filesystem;

struct Finalize
{
    void operator()(sqlite3_stmt *statement) const
    {
        sqlite3_finalize(statement);
    }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

// A variable that whoever runs the tests sets.
std::string Environment(const char *name)
{
    const char *value = std::getenv(name);
    EXPECT_NE(value, nullptr) << name << " isn't set";
    return value ? value : "";
}

class SchemaTool : public testing::Test
{
  protected:
    SchemaTool()
    {
        std::string name = (fs::temp_directory_path() / "schema.XXXXXX");
        directory_ = mkdtemp(name.data());
        path_ = directory_ / "live.db";
    }
    ~SchemaTool() override
    {
        sqlite3_close(db_);
        fs::remove_all(directory_);
    }

    void Open()
    {
        std::string error;
        ASSERT_TRUE(CreateDatabase(path_, false, &error)) << error;
        ASSERT_EQ(sqlite3_open(path_.c_str(), &db_), SQLITE_OK);
        ASSERT_EQ(Run("PRAGMA synchronous = OFF; PRAGMA foreign_keys = ON"),
                  SQLITE_OK);
    }

    Statement Prepare(const std::string &sql)
    {
        sqlite3_stmt *statement = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr),
                  SQLITE_OK)
            << sql << "\n"
            << sqlite3_errmsg(db_);
        return Statement(statement);
    }

    // 0, or the status of the failure.
    int Run(const std::string &sql)
    {
        return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
    }

    // All rows and columns of the result, each value followed by a blank.
    std::string Query(const std::string &sql)
    {
        const Statement statement = Prepare(sql);
        std::string result;
        while (statement && sqlite3_step(statement.get()) == SQLITE_ROW)
        {
            for (int i = 0; i < sqlite3_column_count(statement.get()); ++i)
            {
                const void *text = sqlite3_column_text(statement.get(), i);
                result += text ? static_cast<const char *>(text) : "NULL";
                result += ' ';
            }
        }
        return result;
    }

    // Runs qdb-schema and gives its exit status; what it prints goes to the
    // file `out` of the directory, its errors to `err`.
    int RunTool(const std::string &arguments)
    {
        const std::string command = Environment("QDB_TEST_SCHEMA") + ' ' +
                                    arguments + " >" +
                                    (directory_ / "out").string() + " 2>" +
                                    (directory_ / "err").string();
        const int status = std::system(command.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::vector<std::string> FilesLeft() const
    {
        std::vector<std::string> names;
        for (const auto &entry : fs::directory_iterator(directory_))
        {
            names.push_back(entry.path().filename());
        }
        std::ranges::sort(names);
        return names;
    }

    fs::path directory_;
    fs::path path_;
    sqlite3 *db_ = nullptr;
};

std::string ReadFile(const fs::path &path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteFile(const fs::path &path, const std::string &text)
{
    std::ofstream(path) << text;
}

// An INSERT of the shape that the service uses, one parameter per column.
std::string InsertSql(const char *table, std::span<const std::string> names)
{
    std::string columns;
    std::string marks;
    for (const std::string &name : names)
    {
        columns += (columns.empty() ? "'" : ", '") + name + "'";
        marks += marks.empty() ? "?" : ", ?";
    }
    return std::string("INSERT OR REPLACE INTO ") + table + " (" + columns +
           ") VALUES (" + marks + ")";
}

bool IsText(Form form)
{
    return SqlType(form) == "TEXT";
}

// Texts that look like numbers, the widest integer and a real without a
// fraction: what a wrong affinity would turn into something else.
constexpr const char *kNumericText = "0012.50e1";
constexpr int64_t kWideInteger = INT64_MIN;
constexpr double kWholeReal = 2.0;

void BindTelling(sqlite3_stmt *statement, int index, Form form)
{
    if (IsText(form))
    {
        sqlite3_bind_text(statement, index, kNumericText, -1, SQLITE_STATIC);
    }
    else if (form == Form::F32 || form == Form::F64)
    {
        sqlite3_bind_double(statement, index, kWholeReal);
    }
    else
    {
        sqlite3_bind_int64(statement, index, kWideInteger);
    }
}

void ExpectTelling(sqlite3_stmt *statement, int index, const Column &column)
{
    const Form form = column.source.form;
    const int type = sqlite3_column_type(statement, index);
    if (IsText(form))
    {
        EXPECT_EQ(type, SQLITE_TEXT) << column.name;
        const void *text = sqlite3_column_text(statement, index);
        EXPECT_STREQ(static_cast<const char *>(text), kNumericText);
    }
    else if (form == Form::F32 || form == Form::F64)
    {
        EXPECT_EQ(type, SQLITE_FLOAT) << column.name;
    }
    else
    {
        EXPECT_EQ(type, SQLITE_INTEGER) << column.name;
        EXPECT_EQ(sqlite3_column_int64(statement, index), kWideInteger);
    }
}

TEST_F(SchemaTool, EveryTableKeepsTheValuesOfItsFormsAsTheyAreBound)
{
    Open();
    ASSERT_EQ(Run("INSERT INTO ActiveOIDMapping VALUES (-2, 1)"), SQLITE_OK);
    for (const Table *table : ObjectTables())
    {
        SCOPED_TRACE(table->name);
        std::vector<std::string> names;
        for (const Column &column : table->columns)
        {
            names.emplace_back(column.name);
        }
        const Statement insert = Prepare(InsertSql(table->name, names));
        const auto isOid = [](const Column &column)
        {
            return std::string_view(column.name) == "OID";
        };
        for (int index = 1; const Column &column : table->columns)
        {
            BindTelling(insert.get(), index, column.source.form);
            if (isOid(column))
            {
                sqlite3_bind_int64(insert.get(), index, -2);
            }
            ++index;
        }
        ASSERT_EQ(sqlite3_step(insert.get()), SQLITE_DONE)
            << sqlite3_errmsg(db_);

        // The row readers rely on the order, the tag behind the last column.
        const Statement row = Prepare(std::string("SELECT * FROM ") +
                                      table->name + " WHERE OID = -2");
        ASSERT_EQ(sqlite3_step(row.get()), SQLITE_ROW);
        for (int index = 0; const Column &column : table->columns)
        {
            EXPECT_STREQ(sqlite3_column_name(row.get(), index), column.name);
            if (!isOid(column))
            {
                ExpectTelling(row.get(), index, column);
            }
            ++index;
        }
        const int tag = static_cast<int>(table->columns.size());
        EXPECT_STREQ(sqlite3_column_name(row.get(), tag), "SingleRecordEtag");
        EXPECT_EQ(sqlite3_column_type(row.get(), tag), SQLITE_TEXT);
    }
}

TEST_F(SchemaTool, DeletingTheMappingRowTakesEverythingOfTheObject)
{
    Open();
    ASSERT_EQ(Run("INSERT INTO ActiveOIDMapping VALUES (7, 1), (8, 1);"
                  "INSERT INTO ParentChildMapping VALUES (7, 1), (8, 7)"),
              SQLITE_OK);
    std::vector<std::string> names;
    for (const Table *table : ObjectTables())
    {
        names.emplace_back(table->name);
        ASSERT_EQ(Run("INSERT INTO " + names.back() + " (OID) VALUES (7), (8)"),
                  SQLITE_OK);
    }
    for (const SideTable *side : kSideTables)
    {
        names.emplace_back(side->name);
        ASSERT_EQ(Run("INSERT INTO " + names.back() +
                      " (OID, PROP, ARR_INDEX) VALUES (7, 'p', 0), (7, 'p', 1),"
                      " (8, 'p', 0)"),
                  SQLITE_OK);
    }

    ASSERT_EQ(Run("DELETE FROM ActiveOIDMapping WHERE Oid = 7"), SQLITE_OK);

    EXPECT_EQ(Query("SELECT OID, POID FROM ParentChildMapping"), "8 7 ");
    for (const std::string &name : names)
    {
        EXPECT_EQ(Query("SELECT OID FROM " + name), "8 ") << name;
        // Without an index each delete would read all tables to their ends.
        EXPECT_NE(
            Query("EXPLAIN QUERY PLAN DELETE FROM " + name + " WHERE OID = 8")
                .find("SEARCH"),
            std::string::npos)
            << name;
    }
}

TEST_F(SchemaTool, RefusesWhatTheServiceCountsOnBeingRefused)
{
    Open();
    ASSERT_EQ(Run("INSERT INTO ActiveOIDMapping VALUES (7, 1)"), SQLITE_OK);
    for (const char *sql : {
             "INSERT INTO ActiveOIDMapping VALUES (7, 2)",
             "INSERT INTO TblProbeObj (OID) VALUES (9)",
             "INSERT INTO ParentChildMapping VALUES (9, 7)",
             "INSERT INTO HbmInfoARR_TblDevProcessor (OID, PROP, ARR_INDEX)"
             " VALUES (9, 'Hbms', 0)",
         })
    {
        EXPECT_EQ(Run(sql), SQLITE_CONSTRAINT) << sql;
    }
}

TEST_F(SchemaTool, ReplacesByKeyAndKeepsElementsInOrder)
{
    Open();
    ASSERT_EQ(Run("INSERT INTO ActiveOIDMapping VALUES (7, 1);"
                  "INSERT OR REPLACE INTO TblStrAttribute (OID) VALUES (7);"
                  "INSERT OR REPLACE INTO TblStrAttribute (OID) VALUES (7);"
                  "INSERT OR REPLACE INTO ParentChildMapping VALUES (7, 1);"
                  "INSERT OR REPLACE INTO ParentChildMapping VALUES (7, 1)"),
              SQLITE_OK);
    for (const char *row : {"10, 1", "2, 2", "0, 3", "2, 4"})
    {
        ASSERT_EQ(Run(std::string("INSERT OR REPLACE INTO "
                                  "INTEGERARR_TblHealthStatusObj VALUES "
                                  "(7, 'HealthStatusArray', ") +
                      row + ")"),
                  SQLITE_OK);
    }
    EXPECT_EQ(Query("SELECT ARR_INDEX, VAL FROM INTEGERARR_TblHealthStatusObj"
                    " WHERE OID = 7 AND PROP = 'HealthStatusArray'"),
              "0 3 2 4 10 1 ");
    EXPECT_EQ(Query("SELECT isRawData FROM TblStrAttribute"), "0 ");
    EXPECT_EQ(Query("SELECT count(*) FROM ParentChildMapping"), "1 ");
}

TEST_F(SchemaTool, HasATagRowForEveryObjectTable)
{
    Open();
    for (const Table *table : ObjectTables())
    {
        ASSERT_EQ(Run(std::string("UPDATE TblEtag SET MultiRecordEtag = "
                                  "strftime('%s') where TableName = '") +
                      table->name + "'"),
                  SQLITE_OK);
        EXPECT_EQ(sqlite3_changes(db_), 1) << table->name;
    }
    EXPECT_EQ(Query("SELECT count(*) FROM TblEtag"), "111 ");
}

TEST_F(SchemaTool, CreateReplacesOnlyWhenForcedAndLeavesNothingBehind)
{
    const std::string path = path_.string();
    ASSERT_EQ(RunTool("create " + path), 0) << ReadFile(directory_ / "err");
    const std::string made = ReadFile(path_);

    WriteFile(path_, "something precious");
    EXPECT_EQ(RunTool("create " + path), 1);
    EXPECT_EQ(ReadFile(path_), "something precious");
    EXPECT_EQ(ReadFile(directory_ / "err"),
              "qdb-schema: " + path + ": exists already\n");

    WriteFile(path + "-journal", "of the old file");
    EXPECT_EQ(RunTool("create --force " + path), 0);
    EXPECT_EQ(ReadFile(path_), made);
    EXPECT_EQ(FilesLeft(), (std::vector<std::string>{"err", "live.db", "out"}));

    fs::create_directory(path + "-journal");
    EXPECT_EQ(RunTool("create --force " + path), 1);
    EXPECT_EQ(RunTool("create --force " + directory_.string() + "/no/x"), 1);
    EXPECT_EQ(ReadFile(path_), made);
    EXPECT_EQ(FilesLeft(), (std::vector<std::string>{
                               "err", "live.db", "live.db-journal", "out"}));
}

TEST_F(SchemaTool, PrintsTheSchemaAndTheReference)
{
    ASSERT_EQ(RunTool("sql"), 0);
    EXPECT_EQ(ReadFile(directory_ / "out"), SchemaSql());
    ASSERT_EQ(RunTool("markdown"), 0);
    EXPECT_EQ(ReadFile(directory_ / "out"), SchemaMarkdown());
    EXPECT_TRUE(ReadFile(Environment("QDB_TEST_SOURCE") + "/docs/tables.md") ==
                SchemaMarkdown())
        << "docs/tables.md is out of date: qdb-schema markdown > "
           "docs/tables.md";
    EXPECT_EQ(RunTool("no-such-command"), 1);
}

} // namespace
} // namespace qdb
