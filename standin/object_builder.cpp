// Objects from column values.
//
// The passes, in this order: the fields, in the order of the values, so that
// of two fields that share bytes the one named last holds; the joined lists;
// the arrays, which win over fields that they cover. Texts, lists and address
// arrays are appended as they come. Counts and cell sizes follow from the
// lists, unless the values name them: then they hold as they are given, right
// or wrong.
#include "standin/object_builder.h"

#include "objects/schema/rows.h"
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

// The object that is being built. The functions below refuse what doesn't fit;
// the column's name is put before their words further up.
struct Draft
{
    const qdb::Table &table;
    json_t *values; // NULL: none
    std::vector<uint8_t> bytes;
};

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

// Room for the fields, and for arrays that begin among them.
size_t SizeBeforeTexts(const qdb::Table &table, const json_t *values)
{
    size_t size = FixedSize(table);
    for (const ArrayProperty &array : table.arrays)
    {
        const size_t count =
            json_array_size(json_object_get(values, array.name));
        if (array.firstAt != 0 && array.fixedCount == 0)
        {
            size =
                std::max(size, array.firstAt + count * array.table->recordSize);
        }
    }
    return size;
}

// A value with the column that it is for.
struct Given
{
    const Column *column;
    json_t *value;
};

[[noreturn]] void RefuseColumn(const qdb::Table &table, const char *name,
                               const char *reason)
{
    Refuse("%s.%s: %s", table.name, name, reason);
}

// The values that are to be written.
std::vector<Given> Resolve(const qdb::Table &table, json_t *values)
{
    std::vector<Given> givens;
    const char *name = nullptr;
    json_t *value = nullptr;
    size_t next = 0; // values mostly come in the order of the columns
    json_object_foreach(values, name, value)
    {
        const bool isNext = next < table.columns.size() &&
                            table.columns[next].name == std::string_view(name);
        const Column *column =
            isNext ? &table.columns[next] : FindColumn(table, name);
        if (column == nullptr)
        {
            RefuseColumn(table, name, "there is no such column");
        }
        next = static_cast<size_t>(column - table.columns.data()) + 1;
        const Form form = column->source.form;
        if (form == Form::ParentKey || column->name == kOidColumn)
        {
            RefuseColumn(table, name, "can't be set");
        }
        if (!json_is_null(value))
        {
            givens.push_back({column, value});
        }
    }
    return givens;
}

void WriteColumn(Draft *pDraft, const Given &given)
{
    const Source &source = given.column->source;
    switch (KindOf(source.form))
    {
    case FormKind::WordText:
        WriteWordText(pDraft, source, given.value);
        break;
    case FormKind::List:
        WriteList(pDraft, source, given.value);
        break;
    case FormKind::None:
        if (const auto *array = FindArray(pDraft->table, given.column->name))
        {
            WriteArray(pDraft, *array, given.value);
            break;
        }
        Refuse("the object has no such field");
    case FormKind::Text:
        WriteInlineText(pDraft, source.offset,
                        TextRoom(pDraft->table, source.offset), given.value);
        break;
    default:
        WriteScalar(pDraft, source, 0, 0, given.value);
    }
}

// Fields come first, arrays last.
int PassOf(const Given &given)
{
    const FormKind kind = KindOf(given.column->source.form);
    return kind == FormKind::List ? 1 : kind == FormKind::None ? 2 : 0;
}

void WriteColumns(Draft *pDraft)
{
    std::vector<Given> givens = Resolve(pDraft->table, pDraft->values);
    std::ranges::stable_sort(givens, {}, PassOf);
    for (const Given &given : givens)
    {
        try
        {
            WriteColumn(pDraft, given);
        }
        catch (const Refusal &refusal)
        {
            RefuseColumn(pDraft->table, given.column->name,
                         refusal.reason.c_str());
        }
    }
}

std::vector<uint8_t> Build(const ObjectHead &head, json_t *values)
{
    if (values != nullptr && !json_is_object(values))
    {
        Refuse("the values aren't a JSON object");
    }
    const qdb::Table *table = TableFor(head.type, values);
    if (table == nullptr)
    {
        Refuse("no table holds objects of type 0x%X", head.type);
    }
    DataObjHeader header = {};
    header.objID = head.oid;
    header.objType = head.type;
    header.objStatus = head.status;
    header.objFlags = head.flags;
    header.refreshInterval = head.refreshInterval;
    Draft draft = {*table, values, {}};
    draft.bytes.resize(SizeBeforeTexts(*table, values));
    std::memcpy(draft.bytes.data(), &header, sizeof(header));
    WriteColumns(&draft);
    Store(&draft, offsetof(DataObjHeader, objSize), 4, draft.bytes.size());
    return std::move(draft.bytes);
}

// Whether a type with two tables belongs to the first of its rows.
bool IsFirstOfTwo(uint16_t type, const json_t *values)
{
    if (type == 0x31B)
    {
        const json_t *protocol = json_object_get(values, "protocol");
        const uint64_t number = UnsignedOf(protocol).value_or(0);
        return number == 0x40 || number == 0x100;
    }
    const json_t *kind = json_object_get(values, "slotType");
    return UnsignedOf(kind != nullptr
                          ? kind
                          : json_object_get(values, kNestedSlotType))
               .value_or(0) == 7;
}

} // namespace

const qdb::Table *TableFor(uint16_t type, json_t *values)
{
    const auto *end = std::end(qdb::ObjectTypeTable);
    const auto *row = std::ranges::find(qdb::ObjectTypeTable, type,
                                        &qdb::ObjTypeRow::objType);
    if (row == end)
    {
        return nullptr;
    }
    const bool hasTwo = row + 1 != end && row[1].objType == type;
    return hasTwo && !IsFirstOfTwo(type, values) ? row[1].table : row->table;
}

std::vector<uint8_t> BuildObject(const ObjectHead &head, json_t *values,
                                 std::string *pError)
{
    try
    {
        return Build(head, values);
    }
    catch (const Refusal &refusal)
    {
        *pError = refusal.reason;
        return {};
    }
}

} // namespace standin
