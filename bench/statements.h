// The statements of the loops: the service's SQL texts, each prepared once.
#pragma once

#include "db/statement.h"
#include "objects/catalogue.h"
#include "objects/object_view.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace qdb::bench
{

// Throws std::runtime_error when the text can't be prepared.
StatementPtr PrepareText(const std::string &sql);

// Throws std::runtime_error unless the step gives `expected`.
void StepTo(const StatementPtr &statement, int expected);

// Runs a statement that takes integers and gives nothing.
void Write(const StatementPtr &statement, std::initializer_list<int> values);

// A statement that is prepared when it is first needed, as the service's are:
// that belongs to what is measured.
class LazyStatement
{
  public:
    explicit LazyStatement(std::string sql) : sql_(std::move(sql))
    {
    }

    // Throws std::runtime_error as PrepareText does.
    const StatementPtr &Get()
    {
        if (statement_ == nullptr)
        {
            statement_ = PrepareText(sql_);
        }
        return statement_;
    }

  private:
    std::string sql_;
    StatementPtr statement_;
};

// Those of one catalogue row.
struct RowStatements
{
    explicit RowStatements(const ObjTypeRow &ofRow);

    const ObjTypeRow &row;
    LazyStatement insert;
    LazyStatement update;
    LazyStatement select;
    std::vector<LazyStatement> elements; // by array property
};

// The first row that applies to an object; NULL when none does.
const ObjTypeRow *RowOf(DataObjHeader *object);

// Bind the object's columns as the service does, and run the statement. The
// parent's key is that of all objects but the parent itself.
void InsertRow(RowStatements &statements, const ObjectView &object,
               const char *parentKey);
void UpdateRow(RowStatements &statements, const ObjectView &object,
               uint32_t oid);

} // namespace qdb::bench
