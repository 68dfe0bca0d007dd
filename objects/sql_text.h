// SQL texts, derived from the column lists.
//
// The parameters of an INSERT are the table's columns in their order. An
// UPDATE has those that are not written by the INSERT alone, in the same order,
// and then the OID.
#pragma once

#include "objects/table.h"

#include <string>

namespace qdb
{

std::string InsertSql(const Table &table);

// Stamps SingleRecordEtag. rawGuard adds a last parameter that isRawData must
// equal.
std::string UpdateSql(const Table &table, bool rawGuard);

// One row as a JSON object made by SQLite. bareColumns: column names are not
// quoted.
std::string SelectJsonSql(const Table &table, bool bareColumns);

// One row as columns. Needed at every reading, and so without memory.
struct SelectStarSql
{
    char text[128]; // twice what the longest name needs

    explicit SelectStarSql(const Table &table);
};

// One element of an array property, and all elements of one.
std::string InsertElementSql(const SideTable &table);
std::string SelectElementsSql(const SideTable &table);

} // namespace qdb
