#include "objects/array_tables.h"

#include "core/fate.h"
#include "core/guard.h"
#include "core/status.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "objects/binder.h"
#include "objects/json_text.h"
#include "objects/plain_value.h"
#include "objects/row_log.h"
#include "objects/schema/array_tables.h"
#include "objects/sql_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

namespace qdb
{
namespace
{

// Behind OID, PROP and ARR_INDEX.
constexpr int kFirstElementParameter = 4;

struct SideStatements
{
    StatementPool insert;
    StatementPool select;
};

SideStatements gSideStatements[std::size(kSideTables)];

SideStatements &StatementsOf(const SideTable &table)
{
    return gSideStatements[std::ranges::find(kSideTables, &table) -
                           std::begin(kSideTables)];
}

// The name of a function of a row and a side table, for the log. Between its
// lead and its trail stands "TemperatureData_" for the records of that name,
// and nothing for plain integers.
struct FunctionName
{
    char text[128];

    FunctionName(const char *lead, const SideTable &table, const char *trail,
                 const ObjTypeRow &row)
    {
        const std::string_view name = table.name;
        const std::string_view record = name.substr(0, name.find("ARR_Tbl"));
        const bool isPlain = record == "INTEGER";
        std::snprintf(text, sizeof(text), "%s%.*s%s%s%s", lead,
                      isPlain ? 0 : static_cast<int>(record.size()),
                      record.data(), isPlain ? "" : "_", trail, row.suffix);
    }
};

bool HoldsPlainIntegers(const SideTable &table)
{
    return table.columns.size() == 1;
}

uint32_t ElementCount(const ArrayProperty &property, const ObjectView &object)
{
    return property.countAt == 0
               ? property.fixedCount
               : object.Read<uint32_t>(property.countAt).value_or(0);
}

uint64_t FirstElementAt(const ArrayProperty &property, const ObjectView &object)
{
    return property.offsetAt == 0
               ? property.firstAt
               : uint64_t{kBodyBase} +
                     object.Read<uint32_t>(property.offsetAt).value_or(0);
}

// Plain integers go in as 32 bits, the fields of records at their full width.
int BindElementField(sqlite3_stmt *statement, int parameter,
                     const SideTable &table, const Column &column,
                     const ObjectView &object, uint64_t base)
{
    if (HoldsPlainIntegers(table) && column.source.form == Form::U32)
    {
        return sqlite3_bind_int(
            statement, parameter,
            object.Read<int32_t>(base + column.source.offset).value_or(0));
    }
    return BindField(statement, parameter, column.source, object, base);
}

int BindElement(sqlite3_stmt *statement, const ArrayProperty &property,
                const DataObjHeader *pDOH, uint32_t index, uint64_t base)
{
    const ObjectView object(pDOH);
    int result = sqlite3_bind_int64(statement, 1, StoredOid(pDOH->objID));
    result |=
        sqlite3_bind_text(statement, 2, property.name, -1, SQLITE_TRANSIENT);
    result |= sqlite3_bind_int64(statement, 3, index);
    int parameter = kFirstElementParameter;
    for (const Column &column : property.table->columns)
    {
        result |= BindElementField(statement, parameter++, *property.table,
                                   column, object, base);
    }
    return result;
}

int InsertElement(const ObjTypeRow &row, const ArrayProperty &property,
                  sqlite3_stmt *statement, const DataObjHeader *pDOH,
                  uint32_t index, uint64_t base)
{
    const StatementReset reset(statement);
    int status = BindElement(statement, property, pDOH, index, base);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogInvalid, "%s: [%s]Array Bind failed for %d %X. Error: %d",
                row.suffix, StoredOid(pDOH->objID), pDOH->objID, status);
        return status;
    }
    status = execute_statement(statement);
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogInvalid,
                "%s: [%s]Array index %u for prop %s OID %d %X could not "
                "inserted into Array Table. Error: %d",
                row.suffix, index, property.name, StoredOid(pDOH->objID),
                pDOH->objID, status);
    }
    return status;
}

// The elements that lie wholly inside the object, whatever count it claims.
int InsertElements(const ObjTypeRow &row, const ArrayProperty &property,
                   sqlite3_stmt *statement, const DataObjHeader *pDOH)
{
    const ObjectView object(pDOH);
    const uint32_t count = ElementCount(property, object);
    uint64_t base = FirstElementAt(property, object);
    int status = SQLITE_OK;
    for (uint32_t i = 0; i < count && status == SQLITE_OK &&
                         object.Bytes(base, property.table->recordSize);
         ++i)
    {
        status = InsertElement(row, property, statement, pDOH, i, base);
        base += property.table->recordSize;
    }
    return status;
}

void InsertArray(const ObjTypeRow &row, const ArrayProperty &property,
                 const DataObjHeader *pDOH)
{
    const FunctionName function("insert_", *property.table, "array_data_", row);
    QDB_LOG(kLogTrace, "%s: [%s] %s Entry for OID: %d", row.suffix,
            function.text, StoredOid(pDOH->objID));
    const LentStatement statement(StatementsOf(*property.table).insert,
                                  InsertElementSql(*property.table).c_str());
    const int ret = statement.Status();
    int status = ret;
    if (ret != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: [%s]sqlite3_prepare_v2 Error: %d", row.suffix,
                ret);
    }
    else
    {
        status = InsertElements(row, property, statement.Get(), pDOH);
    }
    if (status != SQLITE_OK)
    {
        NoteLack();
    }
    QDB_LOG(kLogTrace, "%s: [%s] %s Exit for OID: %d,status:%d ret:%d",
            row.suffix, function.text, StoredOid(pDOH->objID), status, ret);
}

// Appends an element's JSON text as json_dumps prints it.
bool AppendElement(const char *text, std::string *pElements,
                   json_error_t *pError)
{
    if (text == nullptr)
    {
        return false;
    }
    if (AppendPlainObject(text, pElements))
    {
        return true;
    }
    const JsonPtr element = ParseJson(text, pError);
    const JsonText printed = PrintJson(element.get());
    if (printed != nullptr)
    {
        pElements->append(printed.get());
    }
    return printed != nullptr;
}

// Appends the row that the statement stands on.
int TakeElement(const ObjTypeRow &row, sqlite3_stmt *statement,
                std::string *pElements)
{
    json_error_t error = {};
    pElements->append(pElements->empty() ? "[" : ", ");
    if (!AppendElement(
            reinterpret_cast<const char *>(sqlite3_column_text(statement, 0)),
            pElements, &error))
    {
        QDB_LOG(kLogTrace,
                "%s: [%s]Loading sqlite column text to object failed status = "
                "%d",
                row.suffix, kFailed);
        QDB_LOG(kLogTrace, "%s: [%s] error: on line %d: %s", row.suffix,
                error.line, error.text);
        return kFailed;
    }
    return SQLITE_OK;
}

// Steps through the elements; *pElements stays empty when there are none.
int CollectElements(const ObjTypeRow &row, sqlite3_stmt *statement,
                    std::string *pElements)
{
    std::string elements;
    int status = StepStatement(statement);
    while (status == SQLITE_ROW)
    {
        if (TakeElement(row, statement, &elements) != SQLITE_OK)
        {
            return kFailed;
        }
        status = StepStatement(statement);
    }
    if (status != SQLITE_DONE)
    {
        QDB_LOG(kLogTrace, "%s: [%s] Get of array data failed with ret = %d",
                row.suffix, status);
        return status;
    }
    *pElements = elements.empty() ? elements : elements.append("]");
    return SQLITE_OK;
}

int SelectElements(const ObjTypeRow &row, const ArrayProperty &property,
                   uint32_t oid, std::string *pElements)
{
    const LentStatement statement(StatementsOf(*property.table).select,
                                  SelectElementsSql(*property.table).c_str());
    int status = statement.Status();
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: [%s]sqlite3_prepare_v2 Error: %d", row.suffix,
                status);
        return status;
    }
    status = sqlite3_bind_int64(statement.Get(), 1, StoredOid(oid));
    if (status == SQLITE_OK)
    {
        status = sqlite3_bind_text(statement.Get(), 2, property.name, -1,
                                   SQLITE_TRANSIENT);
    }
    if (status != SQLITE_OK)
    {
        QDB_LOG(kLogTrace, "%s: [%s]Failed to bind value to statement: %d",
                row.suffix, status);
        return status;
    }
    return CollectElements(row, statement.Get(), pElements);
}

int ReadArray(const ObjTypeRow &row, const ArrayProperty &property,
              uint32_t oid, std::string *pElements)
{
    const FunctionName function("GetArrTblRowData_", *property.table, "", row);
    LogEntry(function.text);
    int status = SQLITE_NOMEM;
    Guard(function.text,
          [&]
          {
              status = SelectElements(row, property, oid, pElements);
          });
    LogExit(function.text);
    return status;
}

} // namespace

void FinalizeArrayStatements()
{
    for (SideStatements &statements : gSideStatements)
    {
        statements.insert.Finalize();
        statements.select.Finalize();
    }
}

void InsertArrays(const ObjTypeRow &row, const DataObjHeader *pDOH)
{
    for (const ArrayProperty &property : row.table->arrays)
    {
        InsertArray(row, property, pDOH);
    }
}

int AddArrays(const ObjTypeRow &row, uint32_t oid, int readStatus,
              RowReading *pReading)
{
    QDB_LOG(kLogTrace, "%s: [%s]get row function returns status = %d",
            row.suffix, readStatus);
    if (readStatus != SQLITE_OK)
    {
        return readStatus;
    }
    for (const ArrayProperty &property : row.table->arrays)
    {
        std::string elements;
        const int status = ReadArray(row, property, oid, &elements);
        if (status != SQLITE_OK)
        {
            return status;
        }
        if (!elements.empty())
        {
            pReading->SetArray(property.name, elements);
        }
    }
    return SQLITE_OK;
}

JsonPtr ChangedElements(const json_t *before, const json_t *after)
{
    JsonPtr changed(json_array());
    for (size_t i = 0; i < json_array_size(before); ++i)
    {
        json_t *newElement = json_array_get(after, i);
        if (newElement != nullptr &&
            json_equal(json_array_get(before, i), newElement) == 0)
        {
            QDB_LOG(kLogTrace,
                    "%s: [$obj_id] Array value unequal for arr_index = %d",
                    static_cast<int>(i));
            if (json_array_append(changed.get(), newElement) != 0)
            {
                return nullptr;
            }
        }
    }
    return changed;
}

} // namespace qdb
