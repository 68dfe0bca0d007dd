// A row: the values of a table's columns, from the database or from a signal.
#pragma once

#include "client/quillondb/client.h"

#include <jansson.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qdb::client
{

// An array property's elements stand in a table of their own.
struct SideTable
{
    std::string name;
    std::vector<std::string> fields; // VAL alone: the elements are plain values
};

struct Table
{
    std::string name;
    std::vector<std::string> columns;
    std::vector<std::string> types; // of the columns, as they are declared
    std::vector<size_t> keys;       // columns of the object's key or name
    size_t oid = SIZE_MAX;
    size_t stamp = SIZE_MAX; // SingleRecordEtag: when the row was written
    std::vector<SideTable> sides;

    size_t Find(const std::string &column) const; // columns.size(): none
};

struct Value
{
    qdb_type type = QDB_NULL;
    int64_t integer = 0;
    double real = 0;
    std::string text = {}; // of every type but NULL

    bool operator==(const Value &other) const;
};

Value Integer(int64_t number);

// Its text has the digits that SQLite's JSON has of it, and so what a signal
// can tell.
Value Real(double number);

// Arrays and objects, from whichever side.
Value JsonValue(const json_t *json);

} // namespace qdb::client

// What the C interface gives out.
struct qdb_row
{
    const qdb::client::Table *table = nullptr;
    int64_t oid = 0;
    std::vector<qdb::client::Value> values = {}; // one for each column

    // What tells two states of a row apart, the stamp aside. Never 0.
    uint64_t Tag() const;
};
