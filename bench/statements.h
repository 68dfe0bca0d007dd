// The statements of the loops: the service's SQL texts, each prepared once.
#pragma once

#include "db/statement.h"
#include "objects/catalogue.h"
#include "objects/object_view.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace qdb::bench
{

// Throws std::runtime_error when the text can't be prepared.
StatementPtr PrepareText(const std::string &sql);

// Rows that the process's connection has written so far.
int64_t RowsWritten();

// Throws std::runtime_error unless the step gives `expected`.
void StepTo(const StatementPtr &statement, int expected);

// Runs a statement that takes integers and gives nothing.
void Write(const StatementPtr &statement, std::initializer_list<int> values);

// Those of one catalogue row.
struct RowStatements
{
    explicit RowStatements(const ObjTypeRow &ofRow);

    const ObjTypeRow &row;
    StatementPtr insert;
    StatementPtr update;
    StatementPtr select;
    std::vector<StatementPtr> elements; // by array property
};

// The first row that applies to an object; NULL when none does.
const ObjTypeRow *RowOf(DataObjHeader *object);

// Bind the object's columns as the service does, and run the statement. The
// parent's key is that of all objects but the parent itself.
void InsertRow(const RowStatements &statements, const ObjectView &object,
               const char *parentKey);
void UpdateRow(const RowStatements &statements, const ObjectView &object,
               uint32_t oid);

} // namespace qdb::bench
