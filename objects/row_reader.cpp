#include "objects/row_reader.h"

#include "core/state.h"
#include "core/status.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "db/turn.h"
#include "objects/json_text.h"
#include "objects/row_log.h"
#include "objects/row_query.h"
#include "objects/sql_text.h"

namespace qdb
{
namespace
{

constexpr char kStem[] = "GetRowData_";

int PrepareSelect(const ObjTypeRow &row, uint32_t oid, StatementSlot &slot)
{
    return PrepareForRow(row, oid, kStem, slot, SelectJsonSql);
}

const char *ColumnText(sqlite3_stmt *statement)
{
    return reinterpret_cast<const char *>(sqlite3_column_text(statement, 0));
}

// Takes the row that the statement stands on.
int TakeRow(const ObjTypeRow &row, uint32_t oid, sqlite3_stmt *statement,
            RowReading *pRow)
{
    if (sqlite3_column_type(statement, 0) == SQLITE_NULL)
    {
        return SQLITE_ROW;
    }
    json_error_t error = {};
    const char *text = ColumnText(statement);
    if (text == nullptr || !pRow->Read(*row.table, text, &error))
    {
        QDB_LOG(kLogError, "%s: [%s] error: on line %d: %s oID:%d", row.suffix,
                error.line, error.text, StoredOid(oid));
        LogRowError(kLogError, kStem, row);
        return kFailed;
    }
    return SQLITE_OK;
}

// The statement's own result goes to *pRet, for the log.
int SelectRow(const ObjTypeRow &row, uint32_t oid, RowReading *pRow, int *pRet)
{
    ObjRowState &state = StateOf(row);
    const StatementLock lock(state.SelectObjMutex);
    *pRet = PrepareSelect(row, oid, state.SelectStmt);
    if (*pRet != SQLITE_OK)
    {
        return *pRet;
    }
    sqlite3_stmt *statement = state.SelectStmt.statement;
    const StatementReset reset(statement);
    *pRet = sqlite3_bind_int64(statement, 1, StoredOid(oid));
    if (*pRet != SQLITE_OK)
    {
        QDB_LOG(kLogError,
                "%s: [%s]Failed to bind value to statement: %d oID:%d",
                row.suffix, *pRet, StoredOid(oid));
        LogRowError(kLogError, kStem, row);
        return kFailed;
    }
    *pRet = StepStatement(statement);
    if (*pRet != SQLITE_ROW)
    {
        QDB_LOG(kLogTrace, "%s: [%s]No matching row found: %d", row.suffix,
                *pRet);
        return *pRet;
    }
    return TakeRow(row, oid, statement, pRow);
}

int GetRowData(const ObjTypeRow &row, uint32_t oid, RowReading *pRow)
{
    QDB_LOG(kLogTrace, "%s: [%s] GetRowData_%s Entry for OID: %d", row.suffix,
            row.suffix, StoredOid(oid));
    int ret = SQLITE_OK;
    const int status = SelectRow(row, oid, pRow, &ret);
    QDB_LOG(kLogTrace,
            "%s: [%s] GetRowData_%s Exit for OID: %d,status:%d ret:%d",
            row.suffix, row.suffix, StoredOid(oid), status, ret);
    return status;
}

} // namespace

bool RowReading::ReadPlain(const Table &table, std::string_view text)
{
    RowTextPtr plain = TakeRowText();
    if (plain == nullptr || !plain->Split(table, text))
    {
        return false;
    }
    json_.reset();
    text_ = std::move(plain);
    return true;
}

bool RowReading::Read(const Table &table, const char *text,
                      json_error_t *pError)
{
    if (ReadPlain(table, text))
    {
        return true;
    }
    JsonPtr parsed = ParseJson(text, pError);
    if (parsed == nullptr)
    {
        return false;
    }
    *this = RowReading(std::move(parsed));
    return true;
}

void RowReading::SetArray(const char *name, const std::string &elements)
{
    if (text_ != nullptr && text_->SetValue(name, elements))
    {
        return;
    }
    if (text_ != nullptr)
    {
        json_ = TakeJson();
    }
    if (json_object_set_new(json_.get(), name,
                            ParseJson(elements.c_str(), nullptr).release()) !=
        0)
    {
        json_.reset();
    }
}

JsonPtr RowReading::TakeJson()
{
    if (const RowTextPtr text = std::move(text_))
    {
        return ParseJson(text->Text().c_str(), nullptr);
    }
    return std::move(json_);
}

int ReadRow(const ObjTypeRow &row, uint32_t oid, RowReading *pRow)
{
    return ReadsWithSelectStar(*row.table)
               ? GetJsonObjectFromQDBQuery(row, SelectStarSql(row).c_str(), oid,
                                           pRow)
               : GetRowData(row, oid, pRow);
}

} // namespace qdb
