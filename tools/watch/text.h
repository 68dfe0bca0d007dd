// Values and texts of objects, made fit for a line.
#pragma once

#include "core/json.h"

#include <string>
#include <string_view>

namespace qdb::watch
{

// UTF-8 text with its control characters, those from U+0080 to U+009F
// included, as escapes.
std::string Printable(std::string_view text);

// At most 100 bytes of UTF-8 text, cut between characters.
std::string Shortened(std::string text);

// The value as JSON; "?" for NULL. `flags` are json_dumps's.
std::string Dump(const json_t *value, size_t flags);

// The value as JSON for people: printable, shortened, and reals with no more
// digits than they have.
std::string ValueText(const json_t *value);

} // namespace qdb::watch
