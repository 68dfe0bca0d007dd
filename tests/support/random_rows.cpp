#include "tests/support/random_rows.h"

#include "standin/layout.h"
#include "tests/support/row_values.h"

#include <cmath>
#include <cstring>
#include <iterator>

namespace qdb::test
{
namespace
{

constexpr size_t kLongestText = 40;

constexpr double kReals[] = {
    0.0,  -0.0, 1.0,  -1.0, 100.0,  0.1,          1.0 / 3,
    1e15, 1e16, 1e17, 1e-7, -1e-15, 2147483648.0, 1.1754943508222875e-38,
    1e38, 1e-45};
// Beyond single precision; the first is above what its rounding to 15 digits
// can be read back from.
constexpr double kDoubles[] = {1.7976931348623157e308,  5e-324,
                               2.2250738585072014e-308, 9007199254740993.0,
                               123456789.12345678,      1e300};

const std::string kTexts[] = {"",
                              "plain",
                              "\"quoted\\\"",
                              "tab\tand\nline",
                              "\x01\x1F",
                              "\x7F",
                              "\xC3\xA9",
                              "\xE6\xBC\xA2\xF0\x9F\x98\x80",
                              "NULL",
                              "0",
                              "'; DROP TABLE x",
                              "%s%n",
                              "</script>",
                              "\\u0000",
                              "\xEF\xBF\xBF",
                              "\xE2\x80\xA8",
                              "a#$#b@@@/4",
                              "\b\f\r/",
                              "\":,}{",
                              "\xC2\x80\xDF\xBF",
                              "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80",
                              "\xF0\x90\x80\x80\xF4\x8F\xBF\xBD",
                              "ends in \\"};
const std::string kInvalidTexts[] = {"\xFF",
                                     "\xC3",
                                     "\xED\xA0\x80",
                                     "\xC0\x80",
                                     "\xF4\x90\x80\x80",
                                     "a\xE2\x82",
                                     "\xE2\x28\xA1",
                                     "\xF0\x8F\xBF\xBF"};

// Columns that tell to which of two tables an object belongs.
bool IsKind(const std::string &name)
{
    return name == "protocol" || name == "attributes" || name == "slotType" ||
           name == "emptySlotObj_DOT_slotType";
}

} // namespace

RandomRows::RandomRows(uint32_t seed) : engine_(seed)
{
}

// The same on every platform, which std's distributions aren't.
uint32_t RandomRows::Below(uint32_t limit)
{
    return static_cast<uint32_t>(engine_()) % limit;
}

json_t *RandomRows::Integer(unsigned bits, bool isSigned)
{
    const uint64_t greatest = UINT64_MAX >> (64 - bits + (isSigned ? 1 : 0));
    const uint64_t any = uint64_t{engine_()} << 32 | engine_();
    const uint64_t values[] = {
        0, 1, greatest, greatest - 1, any & greatest, any % 1000 & greatest};
    const uint64_t value = values[Below(std::size(values))];
    if (!isSigned)
    {
        // JSON's integers don't reach that far.
        return json_string(std::to_string(value).c_str());
    }
    const auto positive = static_cast<json_int_t>(value);
    return json_integer(Below(2) == 0 ? -positive - 1 : positive);
}

double RandomRows::Real(Form form)
{
    if (form == Form::F64 && Below(4) == 0)
    {
        return kDoubles[Below(std::size(kDoubles))];
    }
    const double sign = Below(2) == 0 ? 1 : -1;
    return Below(2) == 0 ? kReals[Below(std::size(kReals))]
                         : sign * std::ldexp(Below(1U << 24),
                                             static_cast<int>(Below(120)) - 60);
}

// Cut at any byte, so that a character may be cut, too.
std::string RandomRows::Text(size_t longest)
{
    std::string text = Below(40) == 0
                           ? kInvalidTexts[Below(std::size(kInvalidTexts))]
                           : kTexts[Below(std::size(kTexts))];
    return text.substr(0, longest);
}

json_t *RandomRows::Elements(const ArrayProperty &property, const json_t *old)
{
    const size_t had = json_array_size(old);
    const size_t count = property.countAt == 0 ? had : Below(6);
    json_t *elements = json_array();
    for (size_t i = 0; i < count && had != 0; ++i)
    {
        json_t *element = json_deep_copy(json_array_get(old, i % had));
        // A 0 is there because it has to be.
        if (json_integer_value(element) != 0 && Below(2) == 0)
        {
            json_integer_set(element, 1 + Below(120));
        }
        json_array_append_new(elements, element);
    }
    return elements;
}

json_t *RandomRows::List(const json_t *old)
{
    json_t *list = json_array();
    for (size_t i = 0; i < json_array_size(old); ++i)
    {
        json_array_append_new(list,
                              json_string_nocheck(Text(kLongestText).c_str()));
    }
    return list;
}

json_t *RandomRows::Value(const Table &table, const Column &column,
                          const json_t *old)
{
    const Source &source = column.source;
    switch (KindOf(source.form))
    {
    case FormKind::None:
        return Elements(*standin::FindArray(table, column.name), old);
    case FormKind::List:
        return List(old);
    case FormKind::Real:
        return json_real(Real(source.form));
    case FormKind::Text:
        return json_string_nocheck(
            Text(TextRoom(table, source.offset) - 1).c_str());
    case FormKind::WordText:
        return Below(8) == 0 ? json_null()
                             : json_string_nocheck(Text(kLongestText).c_str());
    case FormKind::Integer:
        break;
    }
    const auto [bits, isSigned] = RangeOf(source);
    return Integer(bits, isSigned);
}

JsonPtr RandomRows::Values(const ObjTypeRow &row)
{
    JsonPtr values = ValuesFor(row, ValueSet::First);
    Vary(row, values.get());
    return values;
}

void RandomRows::Vary(const ObjTypeRow &row, json_t *values)
{
    const uint32_t oneIn = 1 + Below(8);
    const bool nothing = Below(8) == 0;
    for (const Column &column : row.table->columns)
    {
        const json_t *old = json_object_get(values, column.name);
        if (old != nullptr && !nothing && !IsKind(column.name) &&
            Below(oneIn) == 0)
        {
            json_object_set_new(values, column.name,
                                Value(*row.table, column, old));
        }
    }
}

} // namespace qdb::test
