#include "tests/support/temp_root.h"

#include "db/statement_ptr.h"
#include "tools/schema_sql.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace qdb::test
{
namespace
{

int AppendRow(void *rows, int columns, char **values, char ** /*names*/)
{
    std::string row;
    for (int i = 0; i < columns; ++i)
    {
        row += i == 0 ? "" : "|";
        row += values[i] == nullptr ? "NULL" : values[i];
    }
    static_cast<std::vector<std::string> *>(rows)->push_back(row);
    return 0;
}

} // namespace

TempRoot::TempRoot()
{
    char pattern[] = "/tmp/qdbtest.XXXXXX";
    const char *made = mkdtemp(pattern);
    path_ = made == nullptr ? "" : made;
    std::filesystem::create_directories(path_ + "/var/run/quillondatabase");
    std::filesystem::create_directories(path_ + "/var/run/telemetryservice");
}

TempRoot::~TempRoot()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempRoot::Database() const
{
    return path_ + "/var/run/quillondatabase/DMLiveObjectDatabase.db";
}

std::string TempRoot::Statistics() const
{
    return path_ + "/var/run/quillondatabase/statistics";
}

std::string TempRoot::Pipe() const
{
    return path_ + "/var/run/telemetryservice/qdbtdbipcpipe";
}

// Made once: its 120 tables take longer than most tests.
void TempRoot::MakeDatabase() const
{
    static std::string made;
    if (made.empty())
    {
        std::string error;
        ASSERT_TRUE(CreateDatabase(Database(), true, &error)) << error;
        std::ostringstream bytes;
        bytes << std::ifstream(Database(), std::ios::binary).rdbuf();
        made = bytes.str();
        return;
    }
    std::filesystem::remove(Database());
    std::ofstream file(Database(), std::ios::binary);
    file << made;
    ASSERT_TRUE(file.flush());
}

void TempRoot::MakePipe() const
{
    ASSERT_EQ(mkfifo(Pipe().c_str(), 0600), 0);
}

std::vector<std::string> Query(const std::string &database,
                               const std::string &sql)
{
    sqlite3 *connection = nullptr;
    const int opened = sqlite3_open_v2(database.c_str(), &connection,
                                       SQLITE_OPEN_READWRITE, nullptr);
    const ConnectionPtr owner(connection);
    std::vector<std::string> rows;
    if (opened != SQLITE_OK)
    {
        return {sqlite3_errmsg(connection)};
    }
    sqlite3_busy_timeout(connection, 10000);
    sqlite3_exec(connection, "PRAGMA foreign_keys = ON", nullptr, nullptr,
                 nullptr);
    if (sqlite3_exec(connection, sql.c_str(), AppendRow, &rows, nullptr) !=
        SQLITE_OK)
    {
        return {sqlite3_errmsg(connection)};
    }
    return rows;
}

std::string QueryValue(const std::string &database, const std::string &sql)
{
    const std::vector<std::string> rows = Query(database, sql);
    return rows.size() == 1 ? rows.front()
                            : "(" + std::to_string(rows.size()) + " rows)";
}

} // namespace qdb::test
