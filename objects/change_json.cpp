#include "objects/change_json.h"

#include "objects/array_tables.h"

#include <cstring>

namespace qdb
{
namespace
{

constexpr char kTag[] = "SingleRecordEtag";

JsonPtr ChangeObject(const ObjTypeRow &row, JsonPtr rowJson)
{
    JsonPtr change(json_object());
    json_object_set_new(change.get(), "TableName",
                        json_string(row.table->name));
    json_object_set_new(change.get(), "RowDetails", rowJson.release());
    return change;
}

JsonText Render(const JsonPtr &change)
{
    return JsonText(json_dumps(change.get(), 0));
}

// What goes into the change set for a column that differs.
void AddChange(json_t *changed, const char *key, const json_t *before,
               json_t *after, bool arrays)
{
    if (arrays && json_is_array(before) && json_is_array(after))
    {
        json_object_set_new(changed, key,
                            ChangedElements(before, after).release());
    }
    else
    {
        json_object_set(changed, key, after);
    }
}

} // namespace

JsonText RenderWholeRow(const ObjTypeRow &row, JsonPtr rowJson)
{
    return Render(ChangeObject(row, std::move(rowJson)));
}

ChangeSet CompareRows(const ObjTypeRow &row, json_t *before,
                      const json_t *after)
{
    ChangeSet changes;
    changes.changed.reset(json_object());
    if (HasPreviousValues(row))
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
        AddChange(changes.changed.get(), key, oldValue, newValue, arrays);
        if (changes.previous != nullptr)
        {
            json_object_set(changes.previous.get(), key, oldValue);
        }
        // Any column whose name begins like the tag's counts as the tag.
        if (std::strncmp(key, kTag, sizeof(kTag) - 1) != 0)
        {
            ++changes.count;
        }
    }
    return changes;
}

JsonText RenderChange(const ObjTypeRow &row, JsonPtr rowJson, ChangeSet changes)
{
    const JsonPtr change = ChangeObject(row, std::move(rowJson));
    json_object_set_new(change.get(), "PropertiesChanged",
                        changes.changed.release());
    if (changes.previous != nullptr)
    {
        json_object_set_new(change.get(), "PreviousPropertyValues",
                            changes.previous.release());
    }
    return Render(change);
}

} // namespace qdb
