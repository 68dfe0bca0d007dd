#include "client/database.h"

#include "core/json.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace qdb::client
{
namespace
{

void TakeRow(const Table &table, sqlite3_stmt *statement, qdb_row *pRow)
{
    pRow->table = &table;
    pRow->values.resize(table.columns.size());
    for (size_t i = 0; i < table.columns.size(); ++i)
    {
        pRow->values[i] = ValueAt(statement, static_cast<int>(i));
    }
    pRow->oid =
        table.oid < table.columns.size() ? pRow->values[table.oid].integer : 0;
}

} // namespace

Database::Database(std::string path, int busyMs)
    : path_(std::move(path)), busyMs_(busyMs)
{
}

int Database::Open(bool *pIsNew)
{
    struct stat file = {};
    const bool isThere = stat(path_.c_str(), &file) == 0;
    *pIsNew = false;
    if (handle_ != nullptr && isThere && file.st_ino == inode_ &&
        file.st_dev == device_)
    {
        return 0;
    }
    statements_.clear();
    tables_.clear();
    handle_.reset();
    if (!isThere)
    {
        return -ENODATA;
    }
    sqlite3 *opened = nullptr;
    const int status =
        sqlite3_open_v2(path_.c_str(), &opened,
                        SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    handle_.reset(opened);
    if (status != SQLITE_OK)
    {
        handle_.reset();
        return -ENODATA;
    }
    sqlite3_busy_handler(opened, OnBusy, this);
    sqlite3_exec(opened, "PRAGMA cache_size = -512", nullptr, nullptr, nullptr);
    const int loaded = Load();
    if (loaded != 0)
    {
        statements_.clear();
        handle_.reset();
        return loaded;
    }
    inode_ = file.st_ino;
    device_ = file.st_dev;
    *pIsNew = true;
    return 0;
}

// SQLite's own handler would have each statement wait for the whole time.
int Database::OnBusy(void *self, int attempts)
{
    constexpr int kFirstPausesMs = 1;
    constexpr int kPauseMs = 10;
    constexpr int kFirst = 5;
    auto *database = static_cast<Database *>(self);
    const int pause = std::min(attempts < kFirst ? kFirstPausesMs : kPauseMs,
                               database->busyMs_ - database->waitedMs_);
    if (pause <= 0)
    {
        return 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(pause));
    database->waitedMs_ += pause;
    return 1;
}

sqlite3_stmt *Database::Prepared(const std::string &sql)
{
    StatementPtr &statement = statements_[sql];
    if (statement == nullptr && handle_ != nullptr)
    {
        sqlite3_stmt *prepared = nullptr;
        sqlite3_prepare_v3(handle_.get(), sql.c_str(), -1,
                           SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
        statement.reset(prepared);
    }
    return statement.get();
}

int Database::Step(sqlite3_stmt *statement, bool *pIsRow)
{
    const int status = statement == nullptr ? sqlite3_errcode(handle_.get())
                                            : sqlite3_step(statement);
    *pIsRow = status == SQLITE_ROW;
    return ResultOf(status);
}

int64_t Database::Version()
{
    sqlite3_stmt *statement = Prepared("PRAGMA data_version");
    const Reset reset{statement};
    bool isRow = false;
    return Step(statement, &isRow) == 0 && isRow
               ? sqlite3_column_int64(statement, 0)
               : 0;
}

bool Database::Answers(const char *sql)
{
    sqlite3_stmt *statement = Prepared(sql);
    const Reset reset{statement};
    bool isRow = false;
    return statement != nullptr && Step(statement, &isRow) == 0 && isRow &&
           sqlite3_column_int(statement, 0) == 1;
}

bool Database::IsReady()
{
    return Answers("SELECT currentValue FROM TblIntAttribute WHERE Key = "
                   "'Tarnu.Embedded.1#QuillonDB.1#IsQuillonDBReady'");
}

bool Database::IsEmpty()
{
    return Answers("SELECT NOT EXISTS (SELECT 1 FROM ActiveOIDMapping)");
}

const Table *Database::FindTable(const std::string &name) const
{
    const auto found = std::ranges::find(tables_, name, &Table::name);
    return found == tables_.end() ? nullptr : &*found;
}

int Database::Read(const Table &table, std::span<const int64_t> oids,
                   std::vector<qdb_row> *pRows)
{
    std::string places = "?";
    for (size_t i = 1; oids.size() > 1 && i < kTogether; ++i)
    {
        places += ",?";
    }
    sqlite3_stmt *statement =
        Prepared("SELECT * FROM " + Quoted(table.name) + " WHERE OID IN (" +
                 places + ") ORDER BY OID");
    size_t count = 0;
    int result = 0;
    {
        const Reset reset{statement};
        sqlite3_clear_bindings(statement);
        for (size_t i = 0; i < oids.size(); ++i)
        {
            sqlite3_bind_int64(statement, static_cast<int>(i + 1), oids[i]);
        }
        bool isRow = false;
        result = Step(statement, &isRow);
        for (; result == 0 && isRow; result = Step(statement, &isRow))
        {
            pRows->resize(std::max(pRows->size(), count + 1));
            TakeRow(table, statement, &(*pRows)[count]);
            ++count;
        }
    }
    pRows->resize(count);
    for (qdb_row &row : *pRows)
    {
        result = result == 0 ? ReadArrays(table, &row) : result;
    }
    return result;
}

int Database::ReadArrays(const Table &table, qdb_row *pRow)
{
    int result = 0;
    for (const SideTable &side : table.sides)
    {
        result = result == 0 ? ReadSide(table, side, pRow) : result;
    }
    return result;
}

// Elements as the service's signals have them: plain values, or objects.
int Database::ReadSide(const Table &table, const SideTable &side, qdb_row *pRow)
{
    std::string element;
    for (const std::string &field : side.fields)
    {
        element += ", '" + field + "', " + Quoted(field);
    }
    const bool isPlain = side.fields.size() == 1 && side.fields[0] == "VAL";
    sqlite3_stmt *statement =
        Prepared("SELECT PROP, json_group_array(" +
                 (isPlain ? "VAL" : "json_object(" + element.substr(2) + ")") +
                 ") FROM (SELECT * FROM " + Quoted(side.name) +
                 " WHERE OID = ? ORDER BY PROP, ARR_INDEX) GROUP BY PROP");
    const Reset reset{statement};
    sqlite3_bind_int64(statement, 1, pRow->oid);
    bool isRow = false;
    int result = Step(statement, &isRow);
    for (; result == 0 && isRow; result = Step(statement, &isRow))
    {
        const size_t column = table.Find(TextAt(statement, 0));
        if (column < pRow->values.size())
        {
            const std::string text = TextAt(statement, 1);
            const JsonPtr array(json_loads(text.c_str(), 0, nullptr));
            pRow->values[column] = array != nullptr
                                       ? JsonValue(array.get())
                                       : Value{QDB_JSON, 0, 0, text};
        }
    }
    return result;
}

int Database::FindKey(const Table &table, const std::string &key,
                      std::vector<int64_t> *pOids)
{
    pOids->clear();
    std::string columns;
    for (const size_t column : table.keys)
    {
        columns += ", NULLIF(" + Quoted(table.columns[column]) + ", '')";
    }
    if (columns.empty())
    {
        return 0;
    }
    sqlite3_stmt *statement =
        Prepared("SELECT OID FROM " + Quoted(table.name) +
                 " WHERE coalesce(NULL" + columns + ") = ? ORDER BY OID");
    const Reset reset{statement};
    sqlite3_bind_text(statement, 1, key.c_str(), -1, SQLITE_STATIC);
    bool isRow = false;
    int result = Step(statement, &isRow);
    for (; result == 0 && isRow; result = Step(statement, &isRow))
    {
        pOids->push_back(sqlite3_column_int64(statement, 0));
    }
    return result;
}

int Database::Count(const Table &table, int64_t *pCount)
{
    sqlite3_stmt *statement =
        Prepared("SELECT count(*) FROM " + Quoted(table.name));
    const Reset reset{statement};
    bool isRow = false;
    const int result = Step(statement, &isRow);
    *pCount = result == 0 && isRow ? sqlite3_column_int64(statement, 0) : 0;
    return result;
}

int Database::Stamps(const Table &table, std::vector<Stamp> *pStamps)
{
    pStamps->clear();
    const std::string stamp = table.stamp < table.columns.size()
                                  ? Quoted(table.columns[table.stamp])
                                  : "0";
    sqlite3_stmt *statement = Prepared("SELECT OID, " + stamp + " FROM " +
                                       Quoted(table.name) + " ORDER BY OID");
    const Reset reset{statement};
    bool isRow = false;
    int result = Step(statement, &isRow);
    for (; result == 0 && isRow; result = Step(statement, &isRow))
    {
        pStamps->push_back(
            {sqlite3_column_int64(statement, 0),
             static_cast<uint32_t>(sqlite3_column_int64(statement, 1))});
    }
    return result;
}

} // namespace qdb::client
