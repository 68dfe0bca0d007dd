#include "tools/audit/snapshot.h"

#include "db/statement_ptr.h"
#include "objects/schema/rows.h"
#include "tools/schema_sql.h"

#include <span>

namespace qdb::audit
{
namespace
{

void Run(sqlite3 *database, const char *sql)
{
    if (sqlite3_exec(database, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        throw Unreadable(sqlite3_errmsg(database));
    }
}

class ReadTransaction
{
  public:
    explicit ReadTransaction(sqlite3 *database) : database_(database)
    {
        Run(database, "BEGIN");
    }
    ~ReadTransaction()
    {
        sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    ReadTransaction(const ReadTransaction &) = delete;
    ReadTransaction &operator=(const ReadTransaction &) = delete;

  private:
    sqlite3 *database_;
};

// Calls `take` with the statement on each row of the query.
template <typename Take>
void ForEachRow(sqlite3 *database, const std::string &sql, Take take)
{
    sqlite3_stmt *made = nullptr;
    int status = sqlite3_prepare_v2(database, sql.c_str(), -1, &made, nullptr);
    const StatementPtr statement(made);
    if (status == SQLITE_OK)
    {
        status = sqlite3_step(made);
    }
    for (; status == SQLITE_ROW; status = sqlite3_step(made))
    {
        take(made);
    }
    if (status != SQLITE_DONE)
    {
        throw Unreadable(sqlite3_errmsg(database));
    }
}

// ", [name]" for each column. A name in brackets is never taken for a text.
std::string ColumnNames(std::span<const Column> columns)
{
    std::string names;
    for (const Column &column : columns)
    {
        names += std::string(", [") + column.name + ']';
    }
    return names;
}

std::vector<Value> Cells(sqlite3_stmt *statement, int first, size_t count)
{
    std::vector<Value> cells;
    for (size_t i = 0; i < count; ++i)
    {
        cells.push_back(CellOf(statement, first + static_cast<int>(i)));
    }
    return cells;
}

void ReadMapping(sqlite3 *database, Snapshot *pSnapshot)
{
    ForEachRow(
        database, "SELECT OID, ObjType FROM ActiveOIDMapping",
        [&](sqlite3_stmt *statement)
        {
            const int64_t oid = sqlite3_column_int64(statement, 0);
            if (!pSnapshot->mapping.emplace(oid, CellOf(statement, 1)).second)
            {
                pSnapshot->repeated.emplace_back(oid, "ActiveOIDMapping");
            }
        });
}

void ReadLinks(sqlite3 *database, Snapshot *pSnapshot)
{
    ForEachRow(database, "SELECT OID, POID FROM ParentChildMapping",
               [&](sqlite3_stmt *statement)
               {
                   const int64_t oid = sqlite3_column_int64(statement, 0);
                   if (!pSnapshot->links
                            .emplace(oid, sqlite3_column_int64(statement, 1))
                            .second)
                   {
                       pSnapshot->repeated.emplace_back(oid,
                                                        "ParentChildMapping");
                   }
               });
}

void ReadTable(sqlite3 *database, const Table &table, Snapshot *pSnapshot)
{
    const bool hasRaw = &table == &kTblStrAttribute;
    const auto count = static_cast<int>(table.columns.size());
    auto &rows = pSnapshot->rows[&table];
    ForEachRow(database,
               "SELECT OID" + ColumnNames(table.columns) +
                   ", SingleRecordEtag" + (hasRaw ? ", isRawData" : "") +
                   " FROM " + table.name,
               [&](sqlite3_stmt *statement)
               {
                   const int64_t oid = sqlite3_column_int64(statement, 0);
                   Row row = {Cells(statement, 1, table.columns.size()),
                              CellOf(statement, count + 1),
                              hasRaw ? CellOf(statement, count + 2) : Value()};
                   if (!rows.emplace(oid, std::move(row)).second)
                   {
                       pSnapshot->repeated.emplace_back(oid, table.name);
                   }
               });
}

void ReadSideTable(sqlite3 *database, const SideTable &table,
                   Snapshot *pSnapshot)
{
    auto &elements = pSnapshot->elements[&table];
    ForEachRow(
        database,
        "SELECT OID, PROP, ARR_INDEX" + ColumnNames(table.columns) + " FROM " +
            table.name,
        [&](sqlite3_stmt *statement)
        {
            const auto *property = reinterpret_cast<const char *>(
                sqlite3_column_text(statement, 1));
            const ElementPlace place = {sqlite3_column_int64(statement, 0),
                                        property == nullptr ? "" : property,
                                        sqlite3_column_int64(statement, 2)};
            if (!elements
                     .emplace(place, Cells(statement, 3, table.columns.size()))
                     .second)
            {
                pSnapshot->repeated.emplace_back(place.oid, table.name);
            }
        });
}

} // namespace

Snapshot ReadSnapshot(sqlite3 *database)
{
    const ReadTransaction transaction(database);
    Snapshot snapshot;
    ReadMapping(database, &snapshot);
    ReadLinks(database, &snapshot);
    for (const Table *table : ObjectTables())
    {
        ReadTable(database, *table, &snapshot);
    }
    for (const SideTable *table : kSideTables)
    {
        ReadSideTable(database, *table, &snapshot);
    }
    return snapshot;
}

} // namespace qdb::audit
