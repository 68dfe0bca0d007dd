#include "standin/column_writer.h"

#include "platform/zoil.h"
#include "standin/layout.h"
#include "standin/support.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <string_view>

namespace standin
{
namespace
{

using qdb::ArrayProperty;
using qdb::Column;
using qdb::Form;
using qdb::FormKind;
using qdb::Join;
using qdb::Source;

// A word above it counts as damage, for the service and in real objects.
constexpr size_t kGreatestOffset = 5000;

uint64_t Load(const Draft &draft, size_t at, size_t size)
{
    uint64_t value = 0;
    std::memcpy(&value, draft.bytes.data() + at, size);
    return value;
}

void Store(Draft *pDraft, size_t at, size_t size, uint64_t value)
{
    std::memcpy(pDraft->bytes.data() + at, &value, size);
}

// The values name the column at the offset.
bool IsGiven(const Draft &draft, size_t at)
{
    const Column *column = ColumnAt(draft.table, at);
    const json_t *value = column == nullptr
                              ? nullptr
                              : json_object_get(draft.values, column->name);
    return value != nullptr && !json_is_null(value);
}

void StoreUnlessGiven(Draft *pDraft, size_t at, size_t size, uint64_t value)
{
    if (!IsGiven(*pDraft, at))
    {
        Store(pDraft, at, size, value);
    }
}

// The offset of the object's present end, counted from `base`.
void StoreOffset(Draft *pDraft, const Source &source, size_t base)
{
    const size_t offset = pDraft->bytes.size() - base;
    if (offset > kGreatestOffset)
    {
        Refuse("would begin at offset %zu, but nothing may begin behind %zu",
               offset, kGreatestOffset);
    }
    Store(pDraft, source.offset, FieldSize(source), offset);
}

void WriteInteger(Draft *pDraft, const Source &source, size_t at,
                  const json_t *value)
{
    const qdb::IntegerRange range = RangeOf(source);
    const auto positive = UnsignedOf(value);
    const auto number = SignedOf(value);
    const bool fits =
        range.isSigned ? number && *number >= range.Least() &&
                             *number <= static_cast<int64_t>(range.Greatest())
                       : positive && *positive <= range.Greatest();
    if (!fits)
    {
        Refuse("wants %s integer of %u bits",
               range.isSigned ? "a signed" : "an unsigned", range.bits);
    }
    const uint64_t mask = UINT64_MAX >> (64 - range.bits);
    uint64_t raw =
        range.isSigned ? static_cast<uint64_t>(*number) & mask : *positive;
    if (source.form == Form::Bits)
    {
        const uint64_t before = Load(*pDraft, at, FieldSize(source));
        raw = (before & ~(mask << source.bit)) | raw << source.bit;
    }
    Store(pDraft, at, FieldSize(source), raw);
}

void WriteReal(Draft *pDraft, const Source &source, size_t at,
               const json_t *value)
{
    const double number = json_number_value(value);
    const bool isSingle = source.form == Form::F32;
    if (!json_is_number(value) ||
        (isSingle && std::fabs(number) > double{FLT_MAX}))
    {
        Refuse("wants a number of %s precision",
               isSingle ? "single" : "double");
    }
    if (isSingle)
    {
        const auto single = static_cast<float>(number);
        std::memcpy(pDraft->bytes.data() + at, &single, sizeof(single));
        return;
    }
    std::memcpy(pDraft->bytes.data() + at, &number, sizeof(number));
}

std::string_view TextIn(const json_t *value)
{
    if (!json_is_string(value))
    {
        Refuse("wants a text");
    }
    return {json_string_value(value), json_string_length(value)};
}

void WriteInlineText(Draft *pDraft, size_t at, size_t room, const json_t *value)
{
    const std::string_view text = TextIn(value);
    if (text.size() >= room)
    {
        Refuse("%zu bytes of text don't fit; there is room for %zu",
               text.size(), room - 1);
    }
    std::ranges::copy(text, pDraft->bytes.data() + at);
}

void AppendText(Draft *pDraft, std::string_view text)
{
    pDraft->bytes.insert(pDraft->bytes.end(), text.begin(), text.end());
    pDraft->bytes.push_back(0);
}

// A number or an inline text of the object, or of the array element at `base`.
void WriteScalar(Draft *pDraft, const Source &source, size_t base, size_t room,
                 const json_t *value)
{
    const size_t at = base + source.offset;
    switch (KindOf(source.form))
    {
    case FormKind::Text:
        WriteInlineText(pDraft, at, room, value);
        break;
    case FormKind::Real:
        WriteReal(pDraft, source, at, value);
        break;
    default:
        WriteInteger(pDraft, source, at, value);
    }
}

void WriteWordText(Draft *pDraft, const Source &source, const json_t *value)
{
    if (source.form == Form::OffsetTextIf)
    {
        StoreUnlessGiven(pDraft, source.aux, 4, 1);
    }
    const std::string_view text = TextIn(value);
    StoreOffset(pDraft, source, qdb::FactsOf(source.form).textBase);
    AppendText(pDraft, text);
}

// Cells of one size, each with a text and a NUL.
void WriteCells(Draft *pDraft, const Source &source,
                const std::vector<std::string_view> &texts)
{
    const size_t sizeAt = source.join == Join::PossibleValues
                              ? kEntrySizeAt
                              : kDisplayEntrySizeAt;
    size_t longest = 0;
    for (const std::string_view text : texts)
    {
        longest = std::max(longest, text.size());
    }
    StoreUnlessGiven(pDraft, sizeAt, 2, longest);
    const auto size = static_cast<size_t>(Load(*pDraft, sizeAt, 2));
    if (longest > size)
    {
        Refuse("a text of %zu bytes doesn't fit its cell", longest);
    }
    const uint64_t other = Load(*pDraft, kEntryCountAt, 2);
    if (other != 0 && other != texts.size() && !IsGiven(*pDraft, kEntryCountAt))
    {
        Refuse("the two lists differ in length");
    }
    StoreUnlessGiven(pDraft, kEntryCountAt, 2, texts.size());
    size_t at = pDraft->bytes.size();
    StoreOffset(pDraft, source, 0);
    pDraft->bytes.resize(at + texts.size() * (size + 1));
    for (const std::string_view text : texts)
    {
        std::ranges::copy(text, pDraft->bytes.data() + at);
        at += size + 1;
    }
}

// Texts one behind the other, their count in the word before the list's offset.
// Addresses of name servers and gateways stand behind a marker of their family,
// "/4" or "/6" and one more character; a text that has a slash is left as it
// is.
void WriteAddresses(Draft *pDraft, const Source &source,
                    const std::vector<std::string_view> &texts)
{
    StoreUnlessGiven(pDraft, source.offset - 4u, 4, texts.size());
    StoreOffset(pDraft, source, qdb::kBodyBase);
    for (const std::string_view text : texts)
    {
        const bool isMarked = source.join == Join::PhysicalFqdds ||
                              text.find('/') != std::string_view::npos;
        const bool isIPv6 = text.find(':') != std::string_view::npos;
        AppendText(pDraft, std::string(isMarked ? ""
                                       : isIPv6 ? "/6="
                                                : "/4=")
                               .append(text));
    }
}

void WriteList(Draft *pDraft, const Source &source, const json_t *value)
{
    if (!json_is_array(value))
    {
        Refuse("wants an array of texts");
    }
    std::vector<std::string_view> texts;
    for (size_t i = 0; i < json_array_size(value); ++i)
    {
        texts.push_back(TextIn(json_array_get(value, i)));
    }
    // The offset of an empty list is 0.
    if (!texts.empty())
    {
        IsCellList(source) ? WriteCells(pDraft, source, texts)
                           : WriteAddresses(pDraft, source, texts);
    }
}

void WriteElement(Draft *pDraft, const qdb::SideTable &side, size_t base,
                  json_t *value)
{
    if (!json_is_object(value))
    {
        if (side.columns.size() != 1)
        {
            Refuse("wants an array of objects");
        }
        WriteScalar(pDraft, side.columns[0].source, base, 0, value);
    }
    const char *name = nullptr;
    json_t *member = nullptr;
    json_object_foreach(value, name, member)
    {
        const Column *column = FindColumn(side.columns, name);
        if (column == nullptr)
        {
            Refuse("elements have no %s", name);
        }
        WriteScalar(pDraft, column->source, base,
                    TextRoom(side, column->source.offset), member);
    }
}

void WriteArray(Draft *pDraft, const ArrayProperty &array,
                const json_t *elements)
{
    const size_t count = json_array_size(elements);
    if (!json_is_array(elements) ||
        (array.fixedCount != 0 && count > array.fixedCount))
    {
        Refuse("wants an array of at most %u elements",
               array.fixedCount != 0 ? array.fixedCount : UINT32_MAX);
    }
    size_t base = array.firstAt;
    if (array.offsetAt != 0 && count != 0)
    {
        base = pDraft->bytes.size();
        pDraft->bytes.resize(base + count * array.table->recordSize);
        Store(pDraft, array.offsetAt, 4, base - qdb::kBodyBase);
    }
    if (array.countAt != 0)
    {
        StoreUnlessGiven(pDraft, array.countAt, 4, count);
    }
    for (size_t i = 0; i < count; ++i, base += array.table->recordSize)
    {
        WriteElement(pDraft, *array.table, base, json_array_get(elements, i));
    }
}

} // namespace

void WriteColumn(Draft *pDraft, const Column &column, const json_t *value)
{
    const Source &source = column.source;
    switch (KindOf(source.form))
    {
    case FormKind::WordText:
        WriteWordText(pDraft, source, value);
        break;
    case FormKind::List:
        WriteList(pDraft, source, value);
        break;
    case FormKind::None:
        if (const auto *array = FindArray(pDraft->table, column.name))
        {
            WriteArray(pDraft, *array, value);
            break;
        }
        Refuse("the object has no such field");
    case FormKind::Text:
        WriteInlineText(pDraft, source.offset,
                        TextRoom(pDraft->table, source.offset), value);
        break;
    default:
        WriteScalar(pDraft, source, 0, 0, value);
    }
}

} // namespace standin
