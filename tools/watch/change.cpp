// Change signals as values: everything that a signal may lack or have wrong is
// met here, so that the rest can rely on a Change.
#include "tools/watch/change.h"

namespace qdb::watch
{
namespace
{

// The member `key` of `root` if it is an object, else NULL.
JsonPtr ObjectMember(json_t *root, const char *key)
{
    json_t *member = json_object_get(root, key);
    return json_is_object(member) ? Share(member) : nullptr;
}

} // namespace

const char *KindName(Kind kind)
{
    switch (kind)
    {
    case Kind::Added:
        return "Added";
    case Kind::Changed:
        return "Changed";
    case Kind::Removed:
        return "Removed";
    }
    return "";
}

std::optional<Kind> KindOfMember(std::string_view member)
{
    for (const Kind kind : {Kind::Added, Kind::Changed, Kind::Removed})
    {
        if (member == std::string("Vexo_qdb_Resource_") + KindName(kind))
        {
            return kind;
        }
    }
    return std::nullopt;
}

std::optional<Change> ParseChange(Kind kind, const char *text,
                                  std::string *pError)
{
    json_error_t error;
    const JsonPtr root(json_loads(text, 0, &error));
    if (!root)
    {
        *pError = error.text;
        return std::nullopt;
    }
    const char *table =
        json_string_value(json_object_get(root.get(), "TableName"));
    Change change;
    change.kind = kind;
    change.row = ObjectMember(root.get(), "RowDetails");
    const json_t *oid = json_object_get(change.row.get(), "OID");
    change.changed = ObjectMember(root.get(), "PropertiesChanged");
    change.previous = ObjectMember(root.get(), "PreviousPropertyValues");
    if (table == nullptr || !json_is_integer(oid))
    {
        *pError = "no TableName, or no RowDetails with an OID";
        return std::nullopt;
    }
    if (kind == Kind::Changed && !change.changed)
    {
        *pError = "no PropertiesChanged";
        return std::nullopt;
    }
    if (!change.changed)
    {
        change.changed.reset(json_object());
    }
    if (!change.previous)
    {
        change.previous.reset(json_object());
    }
    change.table = table;
    change.oid = json_integer_value(oid);
    return change;
}

} // namespace qdb::watch
