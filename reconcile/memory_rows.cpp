#include "reconcile/memory_rows.h"

#include "core/log.h"
#include "core/status.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "reconcile/look_up.h"

#include <cstring>

namespace qdb
{
namespace
{

using TextPtr = std::unique_ptr<char, CFree>;

TextPtr CopyText(sqlite3_stmt *statement, int column)
{
    const char *text =
        reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
    if (text == nullptr)
    {
        QDB_LOG(kLogTrace,
                "%s: GetKeyForDIMM: sqlite3_column_text returned NULL\n");
        return nullptr;
    }
    const size_t size = std::strlen(text) + 1;
    TextPtr copy(static_cast<char *>(std::malloc(size)));
    if (copy == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: GetKeyForDIMM: malloc failed\n");
        return nullptr;
    }
    std::memcpy(copy.get(), text, size);
    QDB_LOG(kLogTrace, "%s: old key = %s ckey = %s", text, copy.get());
    return copy;
}

// The column's text; a value of another type is only logged.
TextPtr TextOf(sqlite3_stmt *statement, int column)
{
    switch (sqlite3_column_type(statement, column))
    {
    case SQLITE_TEXT:
        return CopyText(statement, column);
    case SQLITE_INTEGER:
        QDB_LOG(kLogTrace, "%s: Column: %d, ",
                sqlite3_column_int(statement, column));
        return nullptr;
    case SQLITE_FLOAT:
        QDB_LOG(kLogTrace, "%s: Column: %g, ",
                sqlite3_column_double(statement, column));
        return nullptr;
    default:
        return nullptr;
    }
}

} // namespace

TextPtr GetKeyForDIMM(uint32_t oid)
{
    const StatementPtr statement =
        LookUp("select Key from TblMemoryInfo where OID = ?", oid);
    if (statement == nullptr)
    {
        return nullptr;
    }
    QDB_LOG(kLogTrace,
            "%s: GetKeyForDIMM: sqlite3_step returns = %d for oid= %d ",
            SQLITE_OK, StoredOid(oid));
    QDB_LOG(kLogTrace, "%s: GetKeyForDIMM: num_cols = %d",
            sqlite3_column_count(statement.get()));
    return sqlite3_data_count(statement.get()) == 0
               ? nullptr
               : TextOf(statement.get(), 0);
}

uint8_t GetHostPowerSate(uint32_t oid)
{
    const StatementPtr statement = LookUp(
        "select powerstate from TblHostPowerOnStatusObj where OID = ?", oid);
    if (statement == nullptr)
    {
        return 0;
    }
    const auto state = static_cast<uint8_t>(FirstInteger(statement.get()));
    QDB_LOG(kLogTrace, "%s: GetHostPowerSate: fpowerstate = %d", state);
    return state;
}

int CheckHostPowerSulpplyObjCountInDB(int *pCount)
{
    int status = SQLITE_OK;
    const StatementPtr statement =
        PrepareLookUp("SELECT count(*) FROM TblHostPowerOnStatusObj", &status);
    if (status != SQLITE_OK)
    {
        return status;
    }
    status = StepStatement(statement.get());
    if (status == SQLITE_ROW)
    {
        *pCount = sqlite3_column_int(statement.get(), 0);
        QDB_LOG(kLogTrace, "%s: row count for TblHostPowerOnStatusObj = %d\n",
                *pCount);
        return SQLITE_OK;
    }
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: No data found\n");
        return kFailed;
    }
    return SQLITE_OK;
}

} // namespace qdb
