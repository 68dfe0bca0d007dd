// The reference of all tables for people; docs/tables.md is this text.
#pragma once

#include <string>

namespace qdb
{

// Markdown: how the tables hang together, then every table with the object
// types that fill it and, per column, name, SQL type, what it holds and the
// field's offset in the object.
std::string SchemaMarkdown();

} // namespace qdb
