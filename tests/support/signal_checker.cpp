#include "tests/support/signal_checker.h"

#include <algorithm>

namespace qdb::test
{
namespace
{

bool IsTag(const std::string &column)
{
    return column.starts_with("SingleRecordEtag");
}

// The first column of `expected`, other than the tag and those that `except`
// has, that isn't the same in `found`; "" when there is none.
std::string FirstDifference(json_t *expected, const json_t *found,
                            const json_t *except = nullptr)
{
    const char *column = nullptr;
    json_t *value = nullptr;
    json_object_foreach(expected, column, value)
    {
        if (!IsTag(column) && json_object_get(except, column) == nullptr &&
            json_equal(value, json_object_get(found, column)) == 0)
        {
            return column;
        }
    }
    return "";
}

// The same for what changed; of an array only the elements that differ are
// told.
std::string FirstWrongChange(json_t *changed, const json_t *row)
{
    const char *column = nullptr;
    json_t *value = nullptr;
    json_object_foreach(changed, column, value)
    {
        if (!json_is_array(value) &&
            json_equal(value, json_object_get(row, column)) == 0)
        {
            return column;
        }
    }
    return "";
}

// What is wrong with a Changed behind the row `before`.
std::string JudgeChange(json_t *change, json_t *before, json_t *row)
{
    json_t *changed = json_object_get(change, "PropertiesChanged");
    json_t *previous = json_object_get(change, "PreviousPropertyValues");
    if (const std::string column = FirstWrongChange(changed, row);
        !column.empty())
    {
        return column + " isn't what the row has";
    }
    if (before == nullptr)
    {
        return "";
    }
    if (const std::string column = FirstDifference(before, row, changed);
        !column.empty())
    {
        return column + " changed without a word";
    }
    if (const std::string column = FirstDifference(previous, before);
        !column.empty())
    {
        return "the old " + column + " isn't what was announced";
    }
    return "";
}

} // namespace

void SignalChecker::Know(const std::set<RowName> &rows)
{
    rows_.clear();
    for (const RowName &row : rows)
    {
        rows_[row] = nullptr;
    }
}

std::string SignalChecker::Take(const Change &change)
{
    const std::string kind = change.member.substr(change.member.rfind('_') + 1);
    const JsonPtr told(json_loads(change.json.c_str(), 0, nullptr));
    const char *table =
        json_string_value(json_object_get(told.get(), "TableName"));
    json_t *row = json_object_get(told.get(), "RowDetails");
    const json_t *oid = json_object_get(row, "OID");
    if (table == nullptr || !json_is_integer(oid))
    {
        return kind + " of no row: " + change.json;
    }
    const RowName name = {table, json_integer_value(oid)};
    const auto known = rows_.find(name);
    std::string fault;
    if ((known != rows_.end()) == (kind == "Added"))
    {
        fault = kind == "Added" ? "is announced already" : "isn't announced";
    }
    else if (kind == "Changed")
    {
        fault = JudgeChange(told.get(), known->second.get(), row);
    }
    else if (kind == "Removed" && known->second != nullptr)
    {
        fault = FirstDifference(known->second.get(), row);
        fault += fault.empty() ? "" : " isn't what was announced";
    }
    const std::string before =
        known == rows_.end() || known->second == nullptr
            ? "nothing"
            : JsonText(json_dumps(known->second.get(), 0)).get();
    if (kind == "Removed")
    {
        rows_.erase(name);
    }
    else
    {
        rows_[name].reset(json_incref(row));
    }
    return fault.empty()
               ? ""
               : kind + " of " + table + " " + std::to_string(name.second) +
                     ": " + fault + "\n  before: " + before +
                     "\n  signal: " + change.json;
}

std::set<RowName> SignalChecker::Announced() const
{
    std::set<RowName> names;
    for (const auto &[name, row] : rows_)
    {
        names.insert(name);
    }
    return names;
}

std::set<RowName> RowsIn(const audit::Snapshot &snapshot)
{
    std::set<RowName> names;
    for (const auto &[table, rows] : snapshot.rows)
    {
        for (const auto &[oid, row] : rows)
        {
            names.insert({table->name, oid});
        }
    }
    return names;
}

std::string Missing(const std::set<RowName> &a, const std::set<RowName> &b)
{
    std::string text;
    for (const RowName &name : a)
    {
        if (!b.contains(name))
        {
            text += name.first + " " + std::to_string(name.second) + "\n";
        }
    }
    return text;
}

} // namespace qdb::test
