// SQL texts, derived from the column lists.
//
// The parameters of an INSERT are the table's columns in their order. An
// UPDATE has those that are not written by the INSERT alone, in the same order,
// and then the OID.
#pragma once

#include "objects/schema/object_type.h"

#include <string_view>

namespace qdb
{

// A text in a buffer of its own: statements are also made where a row has been
// written and has yet to be announced, memory or not. The longest there is has
// 7,653 bytes; one that didn't fit would be cut, and not compile.
class SqlText
{
  public:
    explicit SqlText(std::string_view begin)
    {
        *this += begin;
    }

    SqlText &operator+=(std::string_view text);

    const char *c_str() const
    {
        return text_;
    }
    size_t size() const
    {
        return size_;
    }

  private:
    char text_[8192];
    size_t size_ = 0;
};

SqlText InsertSql(const ObjTypeRow &row);

// Stamps SingleRecordEtag. With Trait::RawValues there is a last parameter that
// isRawData must equal.
SqlText UpdateSql(const ObjTypeRow &row);

// One row as a JSON object made by SQLite.
SqlText SelectJsonSql(const ObjTypeRow &row);

// One row as columns.
SqlText SelectStarSql(const ObjTypeRow &row);

// One element of an array property, and all elements of one.
SqlText InsertElementSql(const SideTable &table);
SqlText SelectElementsSql(const SideTable &table);

} // namespace qdb
