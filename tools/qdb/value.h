// Values of rows as JSON, and as texts that are fit for a line.
#pragma once

#include "core/json.h"

#include <quillondb/client.h>

#include <string>
#include <string_view>

namespace qdb::tool
{

// A JSON string. What isn't UTF-8 in the text becomes U+FFFD.
JsonPtr TextValue(std::string_view text);

// A JSON number; null for what JSON has no number for.
JsonPtr RealValue(double value);

// The value of a column; an array property is a JSON array.
JsonPtr ColumnValue(const qdb_row *row, size_t column);

// All columns of the row, by name.
JsonPtr RowValue(const qdb_row *row);

// The text with its control characters, those from U+0080 to U+009F included,
// as escapes.
std::string Printable(std::string_view text);

// At most 100 bytes of the text, cut between characters.
std::string Shortened(std::string text);

// The value as JSON in one line, without control characters; "?" for NULL.
std::string JsonLine(const json_t *value);

// The value as JSON for people: printable, shortened, and reals with no more
// digits than they have.
std::string ValueText(const json_t *value);

// The value without quotes: the text itself, the number, "NULL". Reals as in
// ValueText. May hold control characters.
std::string PlainText(const json_t *value);

} // namespace qdb::tool
