// What the bench found: tables of figures, printed in one way or the other.
#pragma once

#include <string>
#include <vector>

namespace qdb::bench
{

// A column whose name is "<=" or ">=" holds the target of the one before it.
struct Figures
{
    struct Row
    {
        std::string name;
        std::vector<double> values; // NAN: none
    };

    const char *name;
    std::vector<const char *> columns;
    std::vector<Row> rows;
};

// For people, and as one JSON object.
void PrintText(const std::vector<Figures> &tables);
void PrintJson(const std::vector<Figures> &tables);

} // namespace qdb::bench
