// A value of one cell of the database.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <variant>

namespace qdb::audit
{

// Never equal to a text, whatever its bytes.
struct Blob
{
    std::string bytes;

    bool operator==(const Blob &) const = default;
};

// NULL, INTEGER, REAL, TEXT, BLOB. Values of different kinds are different:
// readers of the database see the kind, too.
using Value = std::variant<std::monostate, int64_t, double, std::string, Blob>;

// The value in a column of the row that the statement stands on.
Value CellOf(sqlite3_stmt *statement, int column);

// For people: NULL, 12, 0.5, "text", x'00ff'. Bytes of a text that aren't
// printable ASCII appear as \xHH, so that one value always fills one line.
std::string Show(const Value &value);

} // namespace qdb::audit
