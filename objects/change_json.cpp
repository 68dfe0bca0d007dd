#include "objects/change_json.h"

#include "objects/array_tables.h"
#include "objects/json_text.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>

namespace qdb
{
namespace
{

// Adds a member; without memory for it, or for its value, the object goes.
void Set(JsonPtr *pObject, const char *key, JsonPtr value)
{
    if (json_object_set_new(pObject->get(), key, value.release()) != 0)
    {
        pObject->reset();
    }
}

JsonPtr ChangeObject(const ObjTypeRow &row, JsonPtr rowJson)
{
    JsonPtr change(json_object());
    Set(&change, "TableName", JsonPtr(json_string(row.table->name)));
    Set(&change, "RowDetails", std::move(rowJson));
    return change;
}

// What goes into the change set for a column that differs.
JsonPtr ChangedValue(const json_t *before, json_t *after, bool arrays)
{
    return arrays && json_is_array(before) && json_is_array(after)
               ? ChangedElements(before, after)
               : Share(after);
}

// A member of the change object: what stands before its value, and the fields
// of a plain row that are the value.
struct Member
{
    std::string_view lead;
    const RowText *row;
    FieldSet fields;
};

constexpr std::string_view kTableName = R"({"TableName": ")";
constexpr std::string_view kRowDetails = R"(", "RowDetails": )";
constexpr std::string_view kChanged = R"(, "PropertiesChanged": )";
constexpr std::string_view kPrevious = R"(, "PreviousPropertyValues": )";

// The change object, put together from the pieces of plain rows. The names of
// tables have nothing to escape. NULL without memory.
JsonText Splice(const ObjTypeRow &row, std::span<const Member> members)
{
    const std::string_view name = row.table->name;
    size_t size = kTableName.size() + name.size() + sizeof("}");
    for (const Member &member : members)
    {
        size += member.lead.size() + member.row->RenderedSize(member.fields);
    }
    JsonText text(static_cast<char *>(std::malloc(size)));
    if (text == nullptr)
    {
        return text;
    }
    char *to = std::ranges::copy(kTableName, text.get()).out;
    to = std::ranges::copy(name, to).out;
    for (const Member &member : members)
    {
        to = std::ranges::copy(member.lead, to).out;
        to = member.row->Render(member.fields, to);
    }
    *to++ = '}';
    *to = '\0';
    return text;
}

JsonText SpliceDifference(const ObjTypeRow &row, const RowText &before,
                          const RowText &after, int *pCount)
{
    const FieldSet changed = after.DifferentFrom(before);
    *pCount = after.CountWithoutTag(changed);
    if (*pCount == 0)
    {
        return nullptr;
    }
    const Member members[] = {
        {kRowDetails, &after, after.AllFields()},
        {kChanged, &after, changed},
        {kPrevious, &before, changed},
    };
    return Splice(
        row, std::span(members).first(row.Has(Trait::PreviousValues) ? 3 : 2));
}

} // namespace

JsonText RenderWholeRow(const ObjTypeRow &row, RowReading reading)
{
    if (const RowText *plain = reading.Plain())
    {
        const Member member = {kRowDetails, plain, plain->AllFields()};
        return Splice(row, std::span(&member, 1));
    }
    return PrintJson(ChangeObject(row, reading.TakeJson()).get());
}

JsonText RenderDifference(const ObjTypeRow &row, RowReading before,
                          RowReading after, int *pCount)
{
    const bool arrays = !row.table->arrays.empty();
    if (!arrays && before.Plain() != nullptr && after.Plain() != nullptr)
    {
        return SpliceDifference(row, *before.Plain(), *after.Plain(), pCount);
    }
    const JsonPtr old = before.TakeJson();
    JsonPtr now = after.TakeJson();
    ChangeSet changes = CompareRows(row, old.get(), now.get());
    *pCount = changes.count;
    return changes.count == 0
               ? nullptr
               : RenderChange(row, std::move(now), std::move(changes));
}

ChangeSet CompareRows(const ObjTypeRow &row, json_t *before,
                      const json_t *after)
{
    ChangeSet changes;
    changes.changed.reset(json_object());
    const bool withPrevious = row.Has(Trait::PreviousValues);
    if (withPrevious)
    {
        changes.previous.reset(json_object());
    }
    const bool arrays = !row.table->arrays.empty();
    const char *key = nullptr;
    json_t *oldValue = nullptr;
    json_object_foreach(before, key, oldValue)
    {
        json_t *newValue = json_object_get(after, key);
        if (newValue == nullptr || json_equal(oldValue, newValue) == 1)
        {
            continue;
        }
        Set(&changes.changed, key, ChangedValue(oldValue, newValue, arrays));
        if (withPrevious)
        {
            Set(&changes.previous, key, Share(oldValue));
        }
        if (changes.changed == nullptr ||
            (withPrevious && changes.previous == nullptr))
        {
            return {};
        }
        // Any column whose name begins like the tag's counts as the tag.
        if (std::strncmp(key, kTagColumn, sizeof(kTagColumn) - 1) != 0)
        {
            ++changes.count;
        }
    }
    return changes;
}

JsonText RenderChange(const ObjTypeRow &row, JsonPtr rowJson, ChangeSet changes)
{
    JsonPtr change = ChangeObject(row, std::move(rowJson));
    Set(&change, "PropertiesChanged", std::move(changes.changed));
    if (changes.previous != nullptr)
    {
        Set(&change, "PreviousPropertyValues", std::move(changes.previous));
    }
    return PrintJson(change.get());
}

} // namespace qdb
