// A row as Jansson holds it: what the plain loop reads, compares and announces.
#pragma once

#include "bench/statements.h"
#include "core/json.h"

#include <optional>

namespace qdb::bench
{

struct ParsedRows
{
    using Row = JsonPtr;
    using Text = JsonText;

    // Throws std::runtime_error when there is no such row.
    static Row Read(RowStatements &statements, uint32_t oid);

    // The text that announces a row that came or went.
    static Text RenderWhole(const ObjTypeRow &row, Row whole);

    // The text that announces a changed row; nothing if only its tag differs.
    // Not for rows with array properties.
    static std::optional<Text> RenderChange(const ObjTypeRow &row, Row before,
                                            Row after);
};

} // namespace qdb::bench
