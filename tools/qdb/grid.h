// The result of a query, and the forms in which it is printed.
#pragma once

#include "core/json.h"

#include <string>
#include <vector>

namespace qdb::tool
{

struct Grid
{
    std::vector<std::string> columns;
    std::vector<std::vector<JsonPtr>> rows; // a value for each column
};

enum class Form
{
    People, // an aligned table
    Json,   // an object per line
    Csv,    // a line of names, then one per row
};

struct Style
{
    Form form = Form::People;
    bool isTerminal = false; // control characters are escaped in every form
    bool isColoured = false;
    size_t width = 0; // of the terminal; 0: no limit
};

// For people: a line of names, then one per row; a block per row, with a line
// per column, where lines would be wider than the terminal. Control characters
// are escapes.
std::string GridText(const Grid &grid, const Style &style);

} // namespace qdb::tool
