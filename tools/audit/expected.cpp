#include "tools/audit/expected.h"

#include "tools/audit/lists.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <iterator>
#include <string_view>

namespace qdb::audit
{
namespace
{

constexpr size_t kSmallestObject = 16;
constexpr uint64_t kHighestTextOffset = 5000;

bool IsAttributeType(uint16_t type)
{
    return type >= 0x4051 && type <= 0x4054;
}

uint64_t WordAt(const ObjectBytes &bytes, uint64_t offset, size_t width)
{
    return bytes.Unsigned(offset, width).value_or(0);
}

// Two types have two tables, by what the object says of itself.
bool Takes(const Table &table, const ObjectBytes &bytes)
{
    const uint64_t protocol = WordAt(bytes, 0x20, 4);
    const bool isSolidState = (WordAt(bytes, 0x748, 4) & 2) != 0;
    const bool isRaidSlot = WordAt(bytes, 0x1C, 2) == 7;
    if (&table == &kTblRAID_PDSmartData_NVMe)
    {
        return protocol == 0x40 || protocol == 0x100;
    }
    if (&table == &kTblRAID_PDSmartData_SAS_SATA)
    {
        return (protocol == 0x10 || protocol == 0x20) && isSolidState;
    }
    if (&table == &kTblRAID_EmptySlot)
    {
        return isRaidSlot;
    }
    return &table != &kTblEmptySlotObj || !isRaidSlot;
}

Value UnsignedValue(const ObjectBytes &bytes, uint64_t offset, size_t width)
{
    const auto number = bytes.Unsigned(offset, width);
    return number ? Value(static_cast<int64_t>(*number)) : Value();
}

Value SignedValue(const ObjectBytes &bytes, uint64_t offset, size_t width)
{
    const auto number = bytes.Signed(offset, width);
    return number ? Value(*number) : Value();
}

// A number without a finite value is stored as none.
Value Finite(double number)
{
    return std::isfinite(number) ? Value(number) : Value();
}

Value RealValue(const ObjectBytes &bytes, const Source &source, uint64_t offset)
{
    if (source.form == Form::F32)
    {
        const auto word = bytes.Unsigned(offset, 4);
        return word ? Finite(std::bit_cast<float>(static_cast<uint32_t>(*word)))
                    : Value();
    }
    const auto word = bytes.Unsigned(offset, 8);
    return word ? Finite(std::bit_cast<double>(*word)) : Value();
}

Value BitsValue(const ObjectBytes &bytes, const Source &source, uint64_t offset)
{
    const size_t last = source.bit + source.width - 1u;
    const auto number = bytes.Unsigned(offset, last / 8 + 1);
    if (!number)
    {
        return {};
    }
    int64_t value = 0;
    for (size_t bit = last + 1; bit-- > source.bit;)
    {
        value = value * 2 + static_cast<int64_t>(*number >> bit & 1);
    }
    return value;
}

Value InlineText(const ObjectBytes &bytes, const Source &source,
                 uint64_t offset)
{
    auto text = bytes.Text(offset);
    const bool isNone =
        !text || (source.form == Form::TextOrNull && text->empty());
    return isNone ? Value() : Value(std::move(*text));
}

// The text that a word leads to, counted from `origin`.
std::optional<Value> TextByOffset(const ObjectBytes &bytes, uint64_t word,
                                  uint64_t origin)
{
    if (word == 0)
    {
        return Value();
    }
    auto text = word > kHighestTextOffset ? std::nullopt
                                          : bytes.EndedText(origin + word);
    return text ? std::optional<Value>(std::move(*text)) : std::nullopt;
}

std::optional<Value> ListByOffset(const ObjectBytes &bytes,
                                  const Source &source)
{
    const bool isCells = source.join == Join::PossibleValues ||
                         source.join == Join::DisplayValues;
    const uint64_t word = WordAt(bytes, source.offset, isCells ? 2 : 4);
    if (word > kHighestTextOffset)
    {
        return std::nullopt;
    }
    const auto text =
        word == 0 ? std::nullopt : ListText(bytes, source.join, word);
    return text ? Value(*text) : Value();
}

// Elements that are plain numbers pass through 32 signed bits.
Value ElementField(const ObjectBytes &bytes, const SideTable &table,
                   const Column &column, uint64_t base)
{
    if (table.columns.size() == 1 && column.source.form == Form::U32)
    {
        return SignedValue(bytes, base + column.source.offset, 4);
    }
    return FieldOf(bytes, column.source, base).value_or(Value());
}

} // namespace

const ObjTypeRow *RowOf(const Object &object, const ObjectBytes &bytes)
{
    if (!object.group && IsAttributeType(object.type))
    {
        return nullptr;
    }
    const auto *found = std::ranges::find_if(
        ObjectTypeTable,
        [&](const ObjTypeRow &row)
        {
            return row.objType == object.type && Takes(*row.table, bytes);
        });
    return found == std::end(ObjectTypeTable) ? nullptr : found;
}

bool IsWithheld(const ObjTypeRow &row, const Column &column)
{
    static constexpr std::string_view kNames[] = {
        "CurrentReleaseDate", "PreviousReleaseDate", "PreviousVersionHash",
        "Sha256String"};
    return row.objType == 0x49 &&
           std::ranges::find(kNames, column.name) != std::end(kNames);
}

std::optional<Value> FieldOf(const ObjectBytes &bytes, const Source &source,
                             uint64_t base)
{
    const uint64_t offset = base + source.offset;
    switch (source.form)
    {
    case Form::U8:
        return UnsignedValue(bytes, offset, 1);
    case Form::U16:
        return UnsignedValue(bytes, offset, 2);
    case Form::U32:
        return UnsignedValue(bytes, offset, 4);
    case Form::U64:
        return UnsignedValue(bytes, offset, 8);
    case Form::I8:
        return SignedValue(bytes, offset, 1);
    case Form::I16:
        return SignedValue(bytes, offset, 2);
    case Form::I32:
        return SignedValue(bytes, offset, 4);
    case Form::F32:
    case Form::F64:
        return RealValue(bytes, source, offset);
    case Form::Bits:
        return BitsValue(bytes, source, offset);
    case Form::Text:
    case Form::TextOrNull:
        return InlineText(bytes, source, offset);
    case Form::OffsetText:
        return TextByOffset(bytes, WordAt(bytes, offset, 4), 0);
    case Form::OffsetText16:
        return TextByOffset(bytes, WordAt(bytes, offset, 2), 0);
    case Form::OffsetTextIf:
        return WordAt(bytes, source.aux, 4) == 0
                   ? Value()
                   : TextByOffset(bytes, WordAt(bytes, offset, 4), 0);
    case Form::BodyText:
        return TextByOffset(bytes, WordAt(bytes, offset, 4), kBodyBase);
    case Form::Joined:
        return ListByOffset(bytes, source);
    case Form::ParentKey:
    case Form::Null:
        break;
    }
    return Value();
}

std::optional<Value> ColumnOf(const ObjectBytes &bytes, const ObjTypeRow &row,
                              const Column &column)
{
    if (bytes.Size() < kSmallestObject)
    {
        return std::nullopt;
    }
    return IsWithheld(row, column) ? Value() : FieldOf(bytes, column.source);
}

std::vector<Element> ElementsOf(const ObjectBytes &bytes,
                                const ArrayProperty &property)
{
    const SideTable &table = *property.table;
    const uint64_t count = property.countAt == 0
                               ? property.fixedCount
                               : WordAt(bytes, property.countAt, 4);
    uint64_t base = property.offsetAt == 0
                        ? property.firstAt
                        : kBodyBase + WordAt(bytes, property.offsetAt, 4);
    std::vector<Element> elements;
    while (elements.size() < count && bytes.Holds(base, table.recordSize))
    {
        Element &element = elements.emplace_back();
        for (const Column &column : table.columns)
        {
            element.push_back(ElementField(bytes, table, column, base));
        }
        base += table.recordSize;
    }
    return elements;
}

} // namespace qdb::audit
