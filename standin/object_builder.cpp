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
#include "standin/column_writer.h"
#include "standin/layout.h"
#include "standin/support.h"

#include <algorithm>
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
            WriteColumn(pDraft, *given.column, given.value);
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
    const auto size = static_cast<uint32_t>(draft.bytes.size());
    std::memcpy(draft.bytes.data() + offsetof(DataObjHeader, objSize), &size,
                sizeof(size));
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
