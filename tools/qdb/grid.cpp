#include "tools/qdb/grid.h"

#include "tools/qdb/value.h"

#include <algorithm>

namespace qdb::tool
{
namespace
{

constexpr const char *kGap = "  ";

std::string Bold(const std::string &text, const Style &style)
{
    return style.isColoured ? "\x1b[1m" + text + "\x1b[0m" : text;
}

// In characters, each of which takes one place.
size_t WidthOf(const std::string &text)
{
    return static_cast<size_t>(std::ranges::count_if(text,
                                                     [](char c)
                                                     {
                                                         return (c & 0xC0) !=
                                                                0x80;
                                                     }));
}

// A column of the table for people.
struct Column
{
    std::string name;
    std::vector<std::string> cells;
    size_t width = 0;
    bool isNumeric = false; // numbers stand at the right
};

Column ColumnOf(const Grid &grid, size_t place)
{
    Column column;
    column.name = Printable(grid.columns[place]);
    column.width = WidthOf(column.name);
    bool isText = false;
    for (const auto &row : grid.rows)
    {
        const json_t *value = row[place].get();
        column.cells.push_back(Printable(PlainText(value)));
        column.width = std::max(column.width, WidthOf(column.cells.back()));
        column.isNumeric = column.isNumeric || json_is_number(value);
        isText = isText || !(json_is_number(value) || json_is_null(value));
    }
    column.isNumeric = column.isNumeric && !isText;
    return column;
}

std::string Padded(const std::string &text, const Column &column)
{
    const std::string space(column.width - WidthOf(text), ' ');
    return column.isNumeric ? space + text : text + space;
}

std::string Line(const std::vector<std::string> &cells)
{
    std::string line;
    for (const std::string &cell : cells)
    {
        line += line.empty() ? cell : kGap + cell;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

std::string Table(const std::vector<Column> &columns, size_t rows,
                  const Style &style)
{
    std::vector<std::string> cells;
    for (const Column &column : columns)
    {
        cells.push_back(Padded(column.name, column));
    }
    std::string text = Bold(Line(cells), style) + '\n';
    for (size_t row = 0; row < rows; ++row)
    {
        for (size_t i = 0; i < columns.size(); ++i)
        {
            cells[i] = Padded(columns[i].cells[row], columns[i]);
        }
        text += Line(cells) + '\n';
    }
    return text;
}

std::string Blocks(const std::vector<Column> &columns, size_t rows,
                   const Style &style)
{
    Column names;
    for (const Column &column : columns)
    {
        names.width = std::max(names.width, WidthOf(column.name));
    }
    std::string text;
    for (size_t row = 0; row < rows; ++row)
    {
        text += row == 0 ? "" : "\n";
        for (const Column &column : columns)
        {
            text += Bold(Padded(column.name, names), style) + kGap +
                    column.cells[row] + '\n';
        }
    }
    return text;
}

std::string PeopleText(const Grid &grid, const Style &style)
{
    std::vector<Column> columns;
    size_t width = 0;
    for (size_t i = 0; i < grid.columns.size(); ++i)
    {
        columns.push_back(ColumnOf(grid, i));
        width += columns.back().width + (i == 0 ? 0 : WidthOf(kGap));
    }
    const bool fits = style.width == 0 || width <= style.width;
    return fits || grid.rows.empty() ? Table(columns, grid.rows.size(), style)
                                     : Blocks(columns, grid.rows.size(), style);
}

std::string JsonLines(const Grid &grid)
{
    std::string text;
    for (const auto &row : grid.rows)
    {
        const JsonPtr line(json_object());
        for (size_t i = 0; i < row.size(); ++i)
        {
            json_object_set(line.get(), grid.columns[i].c_str(), row[i].get());
        }
        text += JsonLine(line.get()) + '\n';
    }
    return text;
}

// A field of RFC 4180. NULL is nothing, an empty text a pair of quotes.
std::string CsvField(const std::string &text, const Style &style)
{
    const std::string shown = style.isTerminal ? Printable(text) : text;
    if (!shown.empty() && shown.find_first_of(",\"\r\n") == std::string::npos)
    {
        return shown;
    }
    std::string field = "\"";
    for (const char c : shown)
    {
        field += c == '"' ? "\"\"" : std::string(1, c);
    }
    return field + '"';
}

std::string CsvText(const Grid &grid, const Style &style)
{
    std::string text;
    for (size_t i = 0; i < grid.columns.size(); ++i)
    {
        text += (i == 0 ? "" : ",") + CsvField(grid.columns[i], style);
    }
    text += '\n';
    for (const auto &row : grid.rows)
    {
        for (size_t i = 0; i < row.size(); ++i)
        {
            const json_t *value = row[i].get();
            text += i == 0 ? "" : ",";
            text +=
                json_is_null(value) ? "" : CsvField(PlainText(value), style);
        }
        text += '\n';
    }
    return text;
}

} // namespace

std::string GridText(const Grid &grid, const Style &style)
{
    switch (style.form)
    {
    case Form::Json:
        return JsonLines(grid);
    case Form::Csv:
        return CsvText(grid, style);
    default:
        return PeopleText(grid, style);
    }
}

} // namespace qdb::tool
