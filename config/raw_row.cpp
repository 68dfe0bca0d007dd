#include "config/raw_row.h"

#include "config/config_objects.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/object_order.h"
#include "db/connection.h"
#include "db/execute.h"
#include "objects/change_json.h"
#include "objects/json_text.h"
#include "objects/row_reader.h"
#include "publish/change_signal.h"

namespace qdb
{
namespace
{

// Readers of the signals know its keys as they are, blanks included.
// clang-format off
constexpr char kSelect[] =
    "SELECT json_object('accessType', accessType, 'attributeFlags', "
    "attributeFlags, 'CurrentValue', CurrentValue, 'DefaultValue', "
    "DefaultValue,   'DependencyText', DependencyText, 'DependencyXML', "
    "DependencyXML, 'DisplayName', DisplayName, 'displayOrder', "
    "displayOrder, 'DOH_ObjStatus', DOH_ObjStatus  , 'featureLicenseBit', "
    "featureLicenseBit, 'isRawData', isRawData, 'Key', Key, 'maxLength', "
    "maxLength, 'minLength', minLength, 'Name', Name, 'objExtFlags',   "
    "objExtFlags, 'PendingValue', PendingValue, 'readPrivilege', "
    "readPrivilege, 'suppressed', suppressed, 'writePr  ivilege', "
    "writePrivilege, 'SingleRecordEtag', SingleRecordEtag) AS json_result "
    "FROM (SELECT * FROM TblStrAttribute WHERE Key = ? COLLATE NOCASE)";

constexpr char kUpdate[] =
    "UPDATE TblStrAttribute SET 'SingleRecordEtag' = "
    "strftime('%s'),'CurrentValue' = ?,'isRawData' = ? WHERE Key = ? "
    "COLLATE NOCASE";
// clang-format on

int BindText(sqlite3_stmt *statement, int parameter, const char *text)
{
    return sqlite3_bind_text(statement, parameter, text, -1, SQLITE_STATIC);
}

StatementPtr Prepare(const char *sql, int *pStatus)
{
    StatementPtr statement = PrepareOnce(sql, pStatus);
    if (statement == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: [4052]sqlite3_prepare_v2 Error: %d", *pStatus);
    }
    return statement;
}

// Parses the row that the statement stands on.
int ParseRow(sqlite3_stmt *statement, JsonPtr *pRow)
{
    const auto *text =
        reinterpret_cast<const char *>(sqlite3_column_text(statement, 0));
    if (text == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: Select query output is NULL");
        return kFailed;
    }
    QDB_LOG(kLogTrace, "%s: Select query output = %s", text);
    *pRow = ParseJson(text, nullptr);
    return *pRow == nullptr ? kFailed : SQLITE_OK;
}

int SelectRow(sqlite3_stmt *statement, const char *key, JsonPtr *pRow)
{
    const StatementReset reset(statement);
    int status = BindText(statement, 1, key);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogInvalid, "%s: Bind failed Error: %d", status);
    }
    status = StepStatement(statement);
    if (status == SQLITE_ROW)
    {
        status = ParseRow(statement, pRow);
    }
    else
    {
        QDB_LOG(kLogInvalid,
                "%s: [4052] NO row selected from TblStrAttribute Table.");
    }
    QDB_LOG(kLogTrace, "%s: [4052]Statement Executed!");
    return status;
}

// Reads the key's row. *pRow stays NULL, and the result isn't 0, when it can't
// be had.
int ReadRawRow(const char *key, JsonPtr *pRow)
{
    int status = SQLITE_OK;
    const StatementPtr statement = Prepare(kSelect, &status);
    if (statement == nullptr)
    {
        return status;
    }
    status = SelectRow(statement.get(), key, pRow);
    QDB_LOG(kLogTrace, "%s: [4052]SQL Bindings Cleared");
    return status;
}

// The object that the key's row stands for; 0 without a row, and then there is
// nothing to be changed.
uint32_t OidOfKey(const char *key)
{
    int status = SQLITE_OK;
    const StatementPtr statement =
        PrepareOnce("SELECT OID FROM TblStrAttribute WHERE Key = ? COLLATE "
                    "NOCASE",
                    &status);
    if (statement == nullptr ||
        BindText(statement.get(), 1, key) != SQLITE_OK ||
        StepStatement(statement.get()) != SQLITE_ROW)
    {
        return 0;
    }
    return static_cast<uint32_t>(sqlite3_column_int(statement.get(), 0));
}

void BindUpdate(sqlite3_stmt *statement, const char *key, const char *value)
{
    const bool cleared = value == nullptr || *value == '\0';
    const int results[] = {
        BindText(statement, 1, cleared ? nullptr : value),
        sqlite3_bind_int(statement, 2, 1),
        BindText(statement, 3, key),
    };
    for (const int result : results)
    {
        if (result != SQLITE_OK)
        {
            QDB_LOG(kLogInvalid, "%s: [4052]Bind failed for AppRaw Error: %d",
                    result);
        }
    }
}

// Writes the value, NULL or empty to clear it, into the key's row. A key
// without a row is no failure.
int WriteRawRow(const char *key, const char *value)
{
    int status = SQLITE_OK;
    const StatementPtr statement = Prepare(kUpdate, &status);
    if (statement != nullptr)
    {
        BindUpdate(statement.get(), key, value);
        status = execute_statement(statement.get());
    }
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogInvalid,
                "%s: [4052]Entry for AppRaw could not updated in "
                "TblStrAttribute Table. Error: %d",
                status);
    }
    return status;
}

// Announces the row, even when nothing changed. The change set of a refresh has
// the old values besides; this one has not.
void Announce(const ObjTypeRow &row, json_t *before, JsonPtr after)
{
    ChangeSet changes = CompareRows(row, before, after.get());
    changes.previous.reset();
    if (changes.changed == nullptr)
    {
        QDB_LOG(kLogWarning, "%s: [4052] No change set found. Error: %d",
                kFailed);
        return;
    }
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(changes.changed.get(), key, value)
    {
        QDB_LOG(kLogTrace, "%s: [4052] Value unequal for key = %s", key);
    }
    const JsonText text =
        RenderChange(row, std::move(after), std::move(changes));
    if (text != nullptr)
    {
        QDB_LOG(kLogTrace, "%s: Json_Out_Str = %s", text.get());
        ChangeJsonChanged(text.get());
    }
}

} // namespace

int ImportRawValue(const char *key, const char *value)
{
    const ObjTypeRow &row = *FindRow(TYPE_CFGSTR);
    const MutexLock lock(StateOf(row).RefreshObjMutex);
    // As in a refresh; the value is of the present.
    ObjectClaim claim(OidOfKey(key), Tick());
    claim.NoteKnown();
    JsonPtr before;
    const int read = ReadRawRow(key, &before);
    int status = WriteRawRow(key, value);
    if (status != SQLITE_OK)
    {
        return status;
    }
    JsonPtr after;
    status = ReadRawRow(key, &after);
    if (before == nullptr || after == nullptr)
    {
        status = status == SQLITE_OK ? read : status;
        QDB_LOG(kLogWarning, "%s: [4052] Failed to select Json Obj. Error: %d",
                status);
        return status;
    }
    Announce(row, before.get(), std::move(after));
    return SQLITE_OK;
}

} // namespace qdb
