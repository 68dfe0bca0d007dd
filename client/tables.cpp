// What tables the database has, and what is known of each.
#include "client/database.h"

#include <strings.h>

#include <algorithm>

namespace qdb::client
{
namespace
{

// The columns that name an object to people, the best first.
std::vector<size_t> FindKeyColumns(const std::vector<std::string> &columns)
{
    constexpr const char *kEnds[] = {"Key",    "_Key",    "_key", "FQDD",
                                     "ifName", "objName", "name"};
    std::vector<size_t> found;
    for (const std::string end : kEnds)
    {
        for (size_t i = 0; i < columns.size(); ++i)
        {
            const std::string &name = columns[i];
            const bool isKey = end[0] == '_'
                                   ? name.ends_with(end)
                                   : strcasecmp(name.c_str(), end.c_str()) == 0;
            if (isKey && std::ranges::find(found, i) == found.end())
            {
                found.push_back(i);
            }
        }
    }
    return found;
}

} // namespace

// Tables with OIDs, and which of them keep elements of others.
int Database::Load()
{
    sqlite3_stmt *statement = Prepared(
        "SELECT name FROM sqlite_master m WHERE type = 'table' AND "
        "name LIKE 'Tbl%' AND EXISTS (SELECT 1 FROM pragma_table_info(m.name) "
        "WHERE name = 'OID') ORDER BY name");
    const Reset reset{statement};
    bool isRow = false;
    int result = Step(statement, &isRow);
    for (; result == 0 && isRow; result = Step(statement, &isRow))
    {
        tables_.emplace_back();
        tables_.back().name = TextAt(statement, 0);
    }
    for (Table &table : tables_)
    {
        result = result == 0 ? LoadTable(&table) : result;
    }
    return result == 0 && tables_.empty() ? -ENODATA : result;
}

int Database::LoadTable(Table *pTable)
{
    sqlite3_stmt *statement =
        Prepared("SELECT m.name, i.name, i.type FROM sqlite_master m, "
                 "pragma_table_info(m.name) i WHERE m.type = 'table' AND "
                 "(m.name = ?1 OR m.name LIKE '%ARR\\_' || "
                 "?1 ESCAPE '\\') ORDER BY m.name, i.cid");
    const Reset reset{statement};
    sqlite3_bind_text(statement, 1, pTable->name.c_str(), -1, SQLITE_STATIC);
    bool isRow = false;
    int result = Step(statement, &isRow);
    for (; result == 0 && isRow; result = Step(statement, &isRow))
    {
        const std::string owner = TextAt(statement, 0);
        const std::string column = TextAt(statement, 1);
        if (owner == pTable->name)
        {
            pTable->columns.push_back(column);
            pTable->types.push_back(TextAt(statement, 2));
            continue;
        }
        if (pTable->sides.empty() || pTable->sides.back().name != owner)
        {
            pTable->sides.push_back({owner, {}});
        }
        if (column != "OID" && column != "PROP" && column != "ARR_INDEX")
        {
            pTable->sides.back().fields.push_back(column);
        }
    }
    pTable->keys = FindKeyColumns(pTable->columns);
    pTable->oid = pTable->Find("OID");
    pTable->stamp = pTable->Find("SingleRecordEtag");
    return result;
}

} // namespace qdb::client
