// What client.hpp takes and tells of. Rows and their changes are views of what
// belongs to the library, and end with the callback that was given them.
#pragma once

#include "quillondb/client.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quillondb
{

// A column of a row.
class Value
{
  public:
    Value(const qdb_row *row, size_t column) : row_(row), column_(column)
    {
    }

    const char *Name() const
    {
        return qdb_row_name(row_, column_);
    }

    qdb_type Type() const
    {
        return qdb_row_type(row_, column_);
    }

    bool IsNull() const
    {
        return Type() == QDB_NULL;
    }

    // "" for NULL; the elements of an array as JSON.
    std::string_view Text() const
    {
        const char *text = qdb_row_text(row_, column_);
        return text == nullptr ? "" : text;
    }

    // 0 for what is no number.
    int64_t Integer() const
    {
        return qdb_row_integer(row_, column_);
    }

    double Real() const
    {
        return qdb_row_real(row_, column_);
    }

    friend std::ostream &operator<<(std::ostream &out, const Value &value)
    {
        return out << (value.IsNull() ? "NULL" : value.Text());
    }

  private:
    const qdb_row *row_;
    size_t column_;
};

// All texts are valid as long as the row is.
class Row
{
  public:
    explicit Row(const qdb_row *row) : row_(row)
    {
    }

    const char *Table() const
    {
        return qdb_row_table(row_);
    }

    int64_t Oid() const
    {
        return qdb_row_oid(row_);
    }

    // "" for a table whose objects have neither key nor name.
    const char *Key() const
    {
        return qdb_row_key(row_);
    }

    // How many columns are known; 0 for some rows that were removed.
    size_t Count() const
    {
        return qdb_row_count(row_);
    }

    // `column` is below Count().
    Value operator[](size_t column) const
    {
        return {row_, column};
    }

    // std::out_of_range when the row has no column of the name, or isn't known.
    Value operator[](const char *name) const
    {
        const size_t column = qdb_row_find(row_, name);
        if (column >= Count())
        {
            throw std::out_of_range(std::string("no column ") + name + " in " +
                                    Table());
        }
        return {row_, column};
    }

  private:
    const qdb_row *row_;
};

struct Difference
{
    Value now;
    bool isOldKnown;
    const char *old; // NULL: it was NULL, or isn't known
};

// The row as it now is, and what differs in it.
class Change : public Row
{
  public:
    explicit Change(const qdb_change *change)
        : Row(qdb_change_row(change)), change_(change)
    {
    }

    // Whether the columns that differ are known; any may, otherwise.
    bool IsKnown() const
    {
        return qdb_change_count(change_) >= 0;
    }

    // None when they aren't known.
    std::vector<Difference> Differences() const
    {
        std::vector<Difference> differences;
        const int count = qdb_change_count(change_);
        for (size_t i = 0; static_cast<int>(i) < count; ++i)
        {
            const char *old = nullptr;
            const bool isKnown = qdb_change_old(change_, i, &old) != 0;
            differences.push_back(
                {(*this)[qdb_change_column(change_, i)], isKnown, old});
        }
        return differences;
    }

  private:
    const qdb_change *change_;
};

// The tables were read again, and so many rows told of since it began.
struct Resync
{
    qdb_reason reason;
    size_t added;
    size_t changed;
    size_t removed;
};

// Any may be empty.
struct Handlers
{
    std::function<void(const Row &)> added = {};
    std::function<void(const Change &)> changed = {};
    std::function<void(const Row &)> removed = {}; // as far as it is known
    std::function<void(bool)> ready = {};
    std::function<void(const Resync &)> resynced = {};
};

struct Column
{
    std::string name;
    std::string type; // as the table declares it
};

struct Options
{
    std::string database = {};            // path; "": where it is installed
    std::string bus = {};                 // address; "": the system bus
    std::vector<std::string> tables = {}; // none: all object tables
    std::chrono::milliseconds busy{1000}; // the longest wait for the database
};

} // namespace quillondb
