#include "client/statement.h"

#include <cerrno>

namespace qdb::client
{

std::string Quoted(const std::string &name)
{
    std::string quoted = "\"";
    for (const char c : name)
    {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + '"';
}

int ResultOf(int status)
{
    switch (status & 0xFF)
    {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
        return 0;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return -EBUSY;
    default:
        return -EIO;
    }
}

std::string TextAt(sqlite3_stmt *statement, int column)
{
    const void *text = sqlite3_column_text(statement, column);
    return text == nullptr
               ? ""
               : std::string(static_cast<const char *>(text),
                             static_cast<size_t>(
                                 sqlite3_column_bytes(statement, column)));
}

Value ValueAt(sqlite3_stmt *statement, int column)
{
    switch (sqlite3_column_type(statement, column))
    {
    case SQLITE_INTEGER:
        return Integer(sqlite3_column_int64(statement, column));
    case SQLITE_FLOAT:
        return Real(sqlite3_column_double(statement, column));
    case SQLITE_NULL:
        return {};
    default:
        return {QDB_TEXT, 0, 0, TextAt(statement, column)};
    }
}

} // namespace qdb::client
