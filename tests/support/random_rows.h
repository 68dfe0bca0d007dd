// Objects for properties that have to hold for all of them: any values that the
// object can hold, unusual ones above all. What comes follows from the seed
// alone.
#pragma once

#include "core/json.h"
#include "objects/schema/rows.h"

#include <cstdint>
#include <random>
#include <string>

namespace qdb::test
{

class RandomRows
{
  public:
    explicit RandomRows(uint32_t seed);

    // Values for the builder, for an object that takes the row.
    JsonPtr Values(const ObjTypeRow &row);

    // Gives some of the values anew, none now and then. Arrays of a counted
    // length grow and shrink. One text in forty isn't UTF-8.
    void Vary(const ObjTypeRow &row, json_t *values);

  private:
    uint32_t Below(uint32_t limit);
    json_t *Integer(unsigned bits, bool isSigned);
    double Real(Form form);
    std::string Text(size_t longest);
    json_t *Value(const Table &table, const Column &column, const json_t *old);
    json_t *List(const json_t *old);
    json_t *Elements(const ArrayProperty &property, const json_t *old);

    std::mt19937 engine_;
};

} // namespace qdb::test
