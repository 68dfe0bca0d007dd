#include "objects/row_query.h"

#include "core/log.h"
#include "core/state.h"
#include "core/status.h"
#include "db/connection.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "db/turn.h"

#include <cstring>
#include <new>
#include <string>

namespace qdb
{
namespace
{

constexpr size_t kUsualTextSize = 4096;

const char *TextOf(sqlite3_stmt *statement, int column)
{
    return reinterpret_cast<const char *>(
        sqlite3_column_text(statement, column));
}

// A column as a JSON value; NULL for one that has no place in JSON.
json_t *ColumnValue(sqlite3_stmt *statement, int column)
{
    switch (sqlite3_column_type(statement, column))
    {
    case SQLITE_INTEGER:
        return json_integer(sqlite3_column_int(statement, column));
    case SQLITE_FLOAT:
        return json_real(sqlite3_column_double(statement, column));
    case SQLITE_TEXT:
        return json_string(TextOf(statement, column));
    case SQLITE_NULL:
        return json_null();
    default:
        return nullptr;
    }
}

// Makes an object of the row that the statement stands on. A text that isn't
// valid UTF-8 fails the row, as it does for the other reader.
int BuildObject(sqlite3_stmt *statement, RowReading *pRow)
{
    JsonPtr row(json_object());
    const int columns = sqlite3_column_count(statement);
    for (int column = 0; column < columns; ++column)
    {
        const char *name = sqlite3_column_name(statement, column);
        if (name == nullptr ||
            sqlite3_column_type(statement, column) == SQLITE_BLOB)
        {
            continue;
        }
        if (json_object_set_new(row.get(), name,
                                ColumnValue(statement, column)) != 0)
        {
            return kFailed;
        }
    }
    *pRow = RowReading(std::move(row));
    return SQLITE_OK;
}

// Appends a column's value. False for what may need more than quotes.
bool AppendValue(sqlite3_stmt *statement, int column, std::string *pText)
{
    switch (sqlite3_column_type(statement, column))
    {
    case SQLITE_INTEGER:
        pText->append(std::to_string(sqlite3_column_int(statement, column)));
        return true;
    case SQLITE_TEXT:
    {
        const char *text = TextOf(statement, column);
        if (text == nullptr || std::strpbrk(text, "\"\\") != nullptr)
        {
            return false;
        }
        pText->append(1, '"').append(text).append(1, '"');
        return true;
    }
    case SQLITE_NULL:
        pText->append("null");
        return true;
    default:
        return false;
    }
}

// The row as SQLite would write it. False if only a JSON object can tell.
bool WriteText(sqlite3_stmt *statement, std::string *pText)
{
    pText->reserve(kUsualTextSize);
    const int columns = sqlite3_column_count(statement);
    for (int column = 0; column < columns; ++column)
    {
        const char *name = sqlite3_column_name(statement, column);
        if (name == nullptr)
        {
            return false;
        }
        pText->append(column == 0 ? "{\"" : ",\"").append(name).append("\":");
        if (!AppendValue(statement, column, pText))
        {
            return false;
        }
    }
    pText->append(1, '}');
    return true;
}

// False also without memory: the object may need less.
bool TakePlain(const Table &table, sqlite3_stmt *statement, RowReading *pRow)
{
    try
    {
        std::string text;
        return WriteText(statement, &text) && pRow->ReadPlain(table, text);
    }
    catch (const std::bad_alloc &)
    {
        return false;
    }
}

int TakeRow(const Table &table, sqlite3_stmt *statement, RowReading *pRow)
{
    return TakePlain(table, statement, pRow) ? SQLITE_OK
                                             : BuildObject(statement, pRow);
}

int RunQuery(const ObjTypeRow &row, const char *sqlText, uint32_t oid,
             RowReading *pRow)
{
    if (QDVdbHandle == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: Database handle is NULL");
        return kFailed;
    }
    if (sqlText == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: Input sql query is NULL");
        return kFailed;
    }
    QDB_LOG(kLogTrace, "%s: Query: %s", sqlText);
    ObjRowState &state = StateOf(row);
    const StatementLock lock(state.SelectObjMutex);
    bool wasReady = false;
    int status = state.SelectStmt.Prepare(sqlText, -1, &wasReady);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace,
                "%s: failed to prepare statement. Sqlstmt status: %d, "
                "errormsg: %s",
                status, SqliteErrorMessage().c_str());
        return FailureOf(status);
    }
    sqlite3_stmt *statement = state.SelectStmt.statement;
    const StatementReset reset(statement);
    const int bound = sqlite3_bind_int64(statement, 1, StoredOid(oid));
    status = StepStatement(statement);
    if (status != SQLITE_ROW)
    {
        QDB_LOG(kLogTrace,
                "%s: failed to execute step. Sqlstmt status: %d, errormsg: %s",
                status, SqliteErrorMessage().c_str());
        return status;
    }
    const int taken = TakeRow(*row.table, statement, pRow);
    return taken != SQLITE_OK ? taken : bound;
}

} // namespace

int GetJsonObjectFromQDBQuery(const ObjTypeRow &row, const char *sqlText,
                              uint32_t oid, RowReading *pRow)
{
    const int status = RunQuery(row, sqlText, oid, pRow);
    LogExit("GetJsonObjectFromQDBQuery");
    return status;
}

} // namespace qdb
