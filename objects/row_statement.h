// What the statements of all handlers of a row share: how they are prepared,
// and how a failed one is logged.
#pragma once

#include "core/log.h"
#include "db/connection.h"
#include "db/statement.h"
#include "objects/catalogue.h"
#include "objects/sql_text.h"

namespace qdb
{

// "%s:  %s sqlite errormsg: %s"; the function is named by its stem, such as
// "CreateObj_", and the row.
inline void LogRowError(int level, const char *stem, const ObjTypeRow &row)
{
    QDB_LOG(level, "%s:  %s%s sqlite errormsg: %s", stem, row.suffix,
            SqliteErrorMessage().c_str());
}

// Fills a slot of the row, whose mutex the caller holds, with the statement
// that `makeSql` writes, unless it is full already. `oid` is for the log.
// Returns 0, or the status of a failed prepare, after which the slot is still
// empty.
template <typename MakeSql>
int PrepareForRow(const ObjTypeRow &row, uint32_t oid, const char *stem,
                  StatementSlot &slot, MakeSql makeSql)
{
    if (slot.statement != nullptr)
    {
        QDB_LOG(kLogTrace, "%s: [%s]Using prepared statement", row.suffix);
        return SQLITE_OK;
    }
    const SqlText sql = makeSql();
    bool wasReady = false;
    const int status =
        slot.Prepare(sql.c_str(), static_cast<int>(sql.size()), &wasReady);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogError, "%s: [%s]sqlite3_prepare_v2 Error: %d oID:%d",
                row.suffix, status, StoredOid(oid));
        LogRowError(kLogError, stem, row);
    }
    return status;
}

} // namespace qdb
