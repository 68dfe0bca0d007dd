// A row as the text that SQLite made of it: what the best loop compares and
// makes its announcements from, without a JSON value.
//
// SQLite writes JSON without spaces, and Jansson with one behind each comma and
// colon; reals they write differently, too. Apart from that the texts are the
// same, and what is announced is made to look like Jansson's.
#pragma once

#include "bench/statements.h"

#include <optional>
#include <string>

namespace qdb::bench
{

// As ParsedRows.
struct SplicedRows
{
    using Row = std::string;
    using Text = std::string;

    static constexpr bool kKeepsLock = true;

    static Row Read(RowStatements &statements, uint32_t oid);
    static Text RenderWhole(const ObjTypeRow &row, const Row &whole);
    static std::optional<Text>
    RenderChange(const ObjTypeRow &row, const Row &before, const Row &after);
};

} // namespace qdb::bench
