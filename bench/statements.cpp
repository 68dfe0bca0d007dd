#include "bench/statements.h"

#include "core/state.h"
#include "db/connection.h"
#include "db/mapping.h"
#include "objects/binder.h"
#include "objects/sql_text.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string_view>

namespace qdb::bench
{
namespace
{

// What the rows of one type never store.
constexpr uint32_t kHvxInventory = 0x49;
constexpr std::string_view kNeverStored[] = {
    "CurrentReleaseDate",
    "PreviousReleaseDate",
    "PreviousVersionHash",
    "Sha256String",
};

bool IsNeverStored(const ObjTypeRow &row, const Column &column)
{
    return row.objType == kHvxInventory &&
           std::ranges::find(kNeverStored, column.name) !=
               std::end(kNeverStored);
}

std::string SelectSql(const Table &table)
{
    return ReadsWithSelectStar(table) ? SelectStarSql(table)
                                      : SelectJsonSql(table, false);
}

// Returns the number of the next parameter. parentKey may be NULL.
int BindColumns(const StatementPtr &statement, const ObjTypeRow &row,
                const ObjectView &object, BindMode mode, const char *parentKey)
{
    int parameter = 1;
    for (const Column &column : row.table->columns)
    {
        if (mode == BindMode::Update && column.source.insertOnly)
        {
            continue;
        }
        if (column.source.form == Form::ParentKey)
        {
            sqlite3_bind_text(statement.get(), parameter, parentKey, -1,
                              SQLITE_TRANSIENT);
        }
        else if (!IsNeverStored(row, column))
        {
            BindField(statement.get(), parameter, column.source, object);
        }
        ++parameter;
    }
    return parameter;
}

} // namespace

StatementPtr PrepareText(const std::string &sql)
{
    int status = SQLITE_OK;
    StatementPtr statement = PrepareOnce(sql.c_str(), &status);
    if (statement == nullptr)
    {
        throw std::runtime_error("can't prepare " + sql);
    }
    return statement;
}

void StepTo(const StatementPtr &statement, int expected)
{
    if (sqlite3_step(statement.get()) != expected)
    {
        throw std::runtime_error(sqlite3_errmsg(QDVdbHandle));
    }
}

void Write(const StatementPtr &statement, std::initializer_list<int> values)
{
    const StatementReset reset(statement.get());
    int parameter = 1;
    for (const int value : values)
    {
        sqlite3_bind_int(statement.get(), parameter++, value);
    }
    StepTo(statement, SQLITE_DONE);
}

RowStatements::RowStatements(const ObjTypeRow &ofRow)
    : row(ofRow), insert(InsertSql(*row.table)),
      update(UpdateSql(*row.table, false)), select(SelectSql(*row.table))
{
    for (const ArrayProperty &property : row.table->arrays)
    {
        elements.emplace_back(SelectElementsSql(*property.table));
    }
}

const ObjTypeRow *RowOf(DataObjHeader *object)
{
    const auto found =
        std::ranges::find_if(ObjectTypeTable,
                             [object](const ObjTypeRow &row)
                             {
                                 return row.objType == object->objType &&
                                        (row.ObjMatchFP == nullptr ||
                                         row.ObjMatchFP(object, nullptr) == 0);
                             });
    return found == ObjectTypeTable.end() ? nullptr : found;
}

void InsertRow(RowStatements &statements, const ObjectView &object,
               const char *parentKey)
{
    const StatementPtr &insert = statements.insert.Get();
    const StatementReset reset(insert.get());
    BindColumns(insert, statements.row, object, BindMode::Insert, parentKey);
    StepTo(insert, SQLITE_DONE);
}

void UpdateRow(RowStatements &statements, const ObjectView &object,
               uint32_t oid)
{
    const StatementPtr &update = statements.update.Get();
    const StatementReset reset(update.get());
    const int last =
        BindColumns(update, statements.row, object, BindMode::Update, nullptr);
    sqlite3_bind_int(update.get(), last, StoredOid(oid));
    StepTo(update, SQLITE_DONE);
}

} // namespace qdb::bench
