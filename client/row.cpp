#include "client/row.h"

#include "core/json.h"

#include <algorithm>
#include <cstring>

namespace qdb::client
{
namespace
{

// FNV-1a, 64 bits.
constexpr uint64_t kBasis = 14695981039346656037u;
constexpr uint64_t kPrime = 1099511628211u;

uint64_t Mix(uint64_t hash, const void *bytes, size_t size)
{
    const auto *byte = static_cast<const unsigned char *>(bytes);
    for (size_t i = 0; i < size; ++i)
    {
        hash = (hash ^ byte[i]) * kPrime;
    }
    return hash;
}

} // namespace

size_t Table::Find(const std::string &column) const
{
    return static_cast<size_t>(std::ranges::find(columns, column) -
                               columns.begin());
}

bool Value::operator==(const Value &other) const
{
    return type == other.type && text == other.text;
}

Value Integer(int64_t number)
{
    return {QDB_INTEGER, number, static_cast<double>(number),
            std::to_string(number)};
}

Value Real(double number)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%.15g", number);
    return {QDB_REAL, static_cast<int64_t>(number), number, text};
}

Value JsonValue(const json_t *json)
{
    const JsonText text(json_dumps(json, JSON_COMPACT));
    return text == nullptr ? Value{} : Value{QDB_JSON, 0, 0, text.get()};
}

} // namespace qdb::client

using qdb::client::Value;

uint64_t qdb_row::Tag() const
{
    using namespace qdb::client;
    uint64_t hash = kBasis;
    for (size_t i = 0; i < values.size(); ++i)
    {
        if (i != table->stamp)
        {
            const Value &value = values[i];
            const auto type = static_cast<unsigned char>(value.type);
            const size_t size = value.text.size();
            hash = Mix(hash, &type, sizeof(type));
            hash = Mix(hash, &size, sizeof(size));
            hash = Mix(hash, value.text.data(), size);
        }
    }
    return hash == 0 ? 1 : hash;
}

extern "C"
{

    const char *qdb_row_table(const qdb_row *row)
    {
        return row->table->name.c_str();
    }

    int64_t qdb_row_oid(const qdb_row *row)
    {
        return row->oid;
    }

    const char *qdb_row_key(const qdb_row *row)
    {
        for (const size_t column : row->table->keys)
        {
            if (column < row->values.size() &&
                !row->values[column].text.empty())
            {
                return qdb_row_text(row, column);
            }
        }
        return "";
    }

    size_t qdb_row_count(const qdb_row *row)
    {
        return row->values.size();
    }

    const char *qdb_row_name(const qdb_row *row, size_t column)
    {
        return row->table->columns[column].c_str();
    }

    qdb_type qdb_row_type(const qdb_row *row, size_t column)
    {
        return row->values[column].type;
    }

    const char *qdb_row_text(const qdb_row *row, size_t column)
    {
        const Value &value = row->values[column];
        return value.type == QDB_NULL ? nullptr : value.text.c_str();
    }

    int64_t qdb_row_integer(const qdb_row *row, size_t column)
    {
        return row->values[column].integer;
    }

    double qdb_row_real(const qdb_row *row, size_t column)
    {
        return row->values[column].real;
    }

    size_t qdb_row_find(const qdb_row *row, const char *name)
    {
        return std::min(row->table->Find(name), row->values.size());
    }
}
