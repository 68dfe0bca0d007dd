#include "tools/audit/value.h"

#include <cstdio>

namespace qdb::audit
{
namespace
{

std::string Hex(char byte)
{
    char digits[3];
    snprintf(digits, sizeof(digits), "%02x", static_cast<uint8_t>(byte));
    return digits;
}

std::string Quoted(const std::string &text)
{
    std::string quoted = "\"";
    for (const char c : text)
    {
        if (c == '"' || c == '\\')
        {
            quoted += '\\';
        }
        quoted += c >= ' ' && c <= '~' ? std::string(1, c) : "\\x" + Hex(c);
    }
    return quoted + '"';
}

struct Shower
{
    std::string operator()(std::monostate) const
    {
        return "NULL";
    }
    std::string operator()(int64_t number) const
    {
        return std::to_string(number);
    }
    std::string operator()(double number) const
    {
        char digits[32];
        snprintf(digits, sizeof(digits), "%.17g", number);
        return digits;
    }
    std::string operator()(const std::string &text) const
    {
        return Quoted(text);
    }
    std::string operator()(const Blob &blob) const
    {
        std::string shown = "x'";
        for (const char byte : blob.bytes)
        {
            shown += Hex(byte);
        }
        return shown + '\'';
    }
};

std::string BytesOf(sqlite3_stmt *statement, int column)
{
    const auto *bytes =
        static_cast<const char *>(sqlite3_column_blob(statement, column));
    const int size = sqlite3_column_bytes(statement, column);
    return bytes == nullptr ? std::string()
                            : std::string(bytes, static_cast<size_t>(size));
}

} // namespace

Value CellOf(sqlite3_stmt *statement, int column)
{
    switch (sqlite3_column_type(statement, column))
    {
    case SQLITE_INTEGER:
        return int64_t{sqlite3_column_int64(statement, column)};
    case SQLITE_FLOAT:
        return sqlite3_column_double(statement, column);
    case SQLITE_TEXT:
        return BytesOf(statement, column);
    case SQLITE_BLOB:
        return Blob{BytesOf(statement, column)};
    default:
        return std::monostate();
    }
}

std::string Show(const Value &value)
{
    return std::visit(Shower(), value);
}

} // namespace qdb::audit
