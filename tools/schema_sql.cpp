// The SQL of the tables, and the file that they are made in.
#include "tools/schema_sql.h"

#include "db/statement_ptr.h"
#include "objects/schema/rows.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace qdb
{
namespace
{

constexpr std::string_view kCascade =
    "REFERENCES ActiveOIDMapping(OID) ON DELETE CASCADE";

// OID is not the rowid of any table: OIDs above 0x7FFFFFFF are stored negative,
// and those who follow the rows by rowid expect it to be 1 or more.
std::string MappingTablesSql()
{
    std::string sql = "CREATE TABLE ActiveOIDMapping (\n"
                      "    OID INTEGER NOT NULL UNIQUE,\n"
                      "    ObjType INTEGER NOT NULL\n"
                      ");\n"
                      "CREATE TABLE ParentChildMapping (\n"
                      "    OID INTEGER NOT NULL ";
    sql += kCascade;
    return sql + ",\n"
                 "    POID INTEGER NOT NULL,\n"
                 "    PRIMARY KEY (OID, POID)\n"
                 ");\n"
                 "CREATE TABLE TblEtag (\n"
                 "    TableName TEXT PRIMARY KEY,\n"
                 "    MultiRecordEtag TEXT\n"
                 ");\n";
}

std::string Quoted(std::string_view name)
{
    std::string quoted = "\"";
    for (const char c : name)
    {
        quoted.append(c == '"' ? 2 : 1, c);
    }
    return quoted + '"';
}

std::string ColumnSql(const Column &column)
{
    return "    " + Quoted(column.name) + ' ' +
           FactsOf(column.source.form).sqlType;
}

std::string ObjectTableSql(const Table &table)
{
    std::string sql = "CREATE TABLE " + Quoted(table.name) + " (\n";
    for (const Column &column : table.columns)
    {
        sql += ColumnSql(column);
        if (std::string_view(column.name) == "OID")
        {
            sql += " NOT NULL UNIQUE ";
            sql += kCascade;
        }
        sql += ",\n";
    }
    // The INSERT leaves the tag out, yet a row has one from its first moment.
    sql += "    \"SingleRecordEtag\" TEXT DEFAULT (strftime('%s'))";
    if (&table == &kTblStrAttribute)
    {
        // Set by whoever stores a value from a raw data file.
        sql += ",\n    \"isRawData\" INTEGER NOT NULL DEFAULT 0";
    }
    return sql + "\n);\n";
}

// The key gives the elements their order: it serves both the lookup by OID and
// property and the cascade by OID.
std::string SideTableSql(const SideTable &table)
{
    std::string sql = "CREATE TABLE " + Quoted(table.name) +
                      " (\n    \"OID\" INTEGER NOT NULL ";
    sql += kCascade;
    sql += ",\n    \"PROP\" TEXT NOT NULL,\n"
           "    \"ARR_INDEX\" INTEGER NOT NULL,\n";
    for (const Column &column : table.columns)
    {
        sql += ColumnSql(column) + ",\n";
    }
    return sql + "    PRIMARY KEY (\"OID\", \"PROP\", \"ARR_INDEX\")\n);\n";
}

// The file that the work is done in; removed unless it was handed on.
class NewFile
{
  public:
    explicit NewFile(const std::string &beside)
        : path_(beside + ".new." + std::to_string(getpid()))
    {
    }
    ~NewFile()
    {
        if (made_)
        {
            unlink(path_.c_str());
        }
    }
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;

    const std::string &Path() const
    {
        return path_;
    }

    // An empty file with the permissions that the umask grants.
    bool Make()
    {
        const int fd =
            open(path_.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
        made_ = fd >= 0;
        return made_ && close(fd) == 0;
    }

    // Gives the file its name; an existing one yields only to `force`.
    bool Rename(const std::string &path, bool force)
    {
        const unsigned flags = force ? 0 : RENAME_NOREPLACE;
        const bool renamed = renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD,
                                       path.c_str(), flags) == 0;
        made_ = made_ && !renamed;
        return renamed;
    }

  private:
    std::string path_;
    bool made_ = false;
};

std::string SystemError(const std::string &path)
{
    return path + ": " + std::strerror(errno);
}

bool FillDatabase(const std::string &path, std::string *pError)
{
    sqlite3 *opened = nullptr;
    int status =
        sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
    const ConnectionPtr db(opened);
    if (status == SQLITE_OK)
    {
        // A half-made file is dropped, so there is nothing to roll back.
        const std::string sql = "PRAGMA journal_mode = OFF;\n" + SchemaSql();
        status = sqlite3_exec(db.get(), sql.c_str(), nullptr, nullptr, nullptr);
    }
    if (status != SQLITE_OK)
    {
        *pError = path + ": " +
                  (db ? sqlite3_errmsg(db.get()) : sqlite3_errstr(status));
    }
    return status == SQLITE_OK;
}

// SQLite would take the old file's journal for the new file's and roll it
// back into it.
bool RemoveJournals(const std::string &path, std::string *pError)
{
    for (const char *suffix : {"-journal", "-wal", "-shm"})
    {
        const std::string journal = path + suffix;
        if (unlink(journal.c_str()) != 0 && errno != ENOENT)
        {
            *pError = SystemError(journal);
            return false;
        }
    }
    return true;
}

} // namespace

std::vector<const Table *> ObjectTables()
{
    std::vector<const Table *> tables;
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        tables.push_back(row.table);
    }
    const auto byName = [](const Table *a, const Table *b)
    {
        return std::strcmp(a->name, b->name) < 0;
    };
    std::sort(tables.begin(), tables.end(), byName);
    tables.erase(std::unique(tables.begin(), tables.end()), tables.end());
    return tables;
}

std::string SchemaSql()
{
    std::string sql =
        "BEGIN;\nPRAGMA user_version = " + std::to_string(kSchemaVersion) +
        ";\n";
    sql += MappingTablesSql();
    const std::vector<const Table *> tables = ObjectTables();
    for (const Table *table : tables)
    {
        sql += ObjectTableSql(*table);
    }
    for (const SideTable *table : kSideTables)
    {
        sql += SideTableSql(*table);
    }
    // The service only ever updates these rows.
    for (const Table *table : tables)
    {
        sql += "INSERT INTO TblEtag (TableName) VALUES ('";
        sql += table->name;
        sql += "');\n";
    }
    return sql + "COMMIT;\n";
}

bool CreateDatabase(const std::string &path, bool force, std::string *pError)
{
    struct stat existing;
    if (!force && lstat(path.c_str(), &existing) == 0)
    {
        *pError = path + ": exists already";
        return false;
    }

    NewFile file(path);
    if (!file.Make())
    {
        *pError = SystemError(file.Path());
        return false;
    }
    if (!FillDatabase(file.Path(), pError) || !RemoveJournals(path, pError))
    {
        return false;
    }
    if (!file.Rename(path, force))
    {
        *pError = SystemError(path);
        return false;
    }
    return true;
}

} // namespace qdb
