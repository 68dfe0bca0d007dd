// How the plain loop writes, reads, compares and announces the rows of one
// catalogue row: by the service's SQL texts, each prepared once, and with the
// row as Jansson holds it.
#pragma once

#include "core/json.h"
#include "db/statement.h"
#include "objects/binder.h"
#include "objects/catalogue.h"
#include "objects/object_view.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace qdb::bench
{

// A statement that is prepared when it is first needed, as the service's are:
// that belongs to what is measured. Throws std::runtime_error when it can't be.
class LazyStatement
{
  public:
    explicit LazyStatement(std::string sql) : sql_(std::move(sql))
    {
    }

    sqlite3_stmt *Get();

  private:
    std::string sql_;
    StatementPtr statement_;
};

// Throws std::runtime_error unless the step gives `expected`.
void StepTo(sqlite3_stmt *statement, int expected);

// Runs a statement that takes integers and gives nothing.
void Write(LazyStatement &statement, std::initializer_list<int> values);

class LoopRow
{
  public:
    explicit LoopRow(const ObjTypeRow &row);

    // parentKey may be NULL.
    void Insert(const ObjectView &object, const char *parentKey);
    void Update(const ObjectView &object, uint32_t oid);

    // Throws std::runtime_error when there is no such row.
    JsonPtr Read(uint32_t oid);

    // The text that announces a row that came or went.
    JsonText Whole(JsonPtr whole) const;

    // The text that announces a changed row; NULL if only its tag differs. Not
    // for rows with array properties.
    JsonText Change(JsonPtr before, JsonPtr after) const;

    const ObjTypeRow &row;

  private:
    int Bind(sqlite3_stmt *statement, const ObjectView &object, BindMode mode,
             const char *parentKey) const;

    LazyStatement insert_;
    LazyStatement update_;
    LazyStatement select_;
    std::vector<LazyStatement> elements_; // by array property
};

// The first row that applies to an object; throws std::runtime_error when none
// does.
const ObjTypeRow &RowOf(DataObjHeader *object);

} // namespace qdb::bench
