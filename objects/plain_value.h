// JSON values that SQLite and Jansson write alike.
//
// A plain value is a null, an integer or a string in the one spelling that both
// of them give it, and that Jansson takes: a string is valid UTF-8 and has a
// short escape where there is one, and nothing else escaped. So two plain
// values are equal exactly when their bytes are. Not plain are reals, which the
// two round differently, and \u escapes, whose digits differ in case.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qdb
{

// The size of the plain value that the text begins with; 0 if it begins with
// none.
size_t PlainValueSize(std::string_view text);

// Appends an object of plain values, which SQLite wrote, as json_dumps prints
// it. False, with nothing appended, if the text is anything else.
bool AppendPlainObject(std::string_view text, std::string *pTo);

} // namespace qdb
