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

// What is wrong with a Changed that stands behind the row `before`.
std::string JudgeChange(json_t *told, json_t *before)
{
    json_t *row = json_object_get(told, "RowDetails");
    json_t *changed = json_object_get(told, "PropertiesChanged");
    json_t *previous = json_object_get(told, "PreviousPropertyValues");
    if (const std::string column = FirstWrongChange(changed, row);
        !column.empty())
    {
        return column + " isn't what the row has";
    }
    if (const std::string column = FirstDifference(before, row, changed);
        !column.empty())
    {
        return column + " changed without a word";
    }
    const std::string column = FirstDifference(previous, before);
    return column.empty() ? ""
                          : "the old " + column + " isn't what was announced";
}

std::string Print(const RowName &name)
{
    return name.first + " " + std::to_string(name.second);
}

} // namespace

void SignalChecker::Doubt()
{
    rows_.clear();
    sure_.clear();
    vague_.clear();
    allSure_ = false;
}

void SignalChecker::LetVanish(const Meant &mayVanish)
{
    mayVanish_ = mayVanish;
}

std::string SignalChecker::JudgeKind(const std::string &kind,
                                     const RowName &name) const
{
    const bool isKnown = rows_.contains(name);
    if (kind == "Added")
    {
        const bool mayBeNew = !isKnown || (mayVanish_ && mayVanish_(name));
        return mayBeNew ? "" : "is announced already";
    }
    return isKnown ? "" : "isn't announced";
}

std::string SignalChecker::JudgeContent(const std::string &kind,
                                        const RowName &name, json_t *told) const
{
    const auto known = rows_.find(name);
    if (known == rows_.end() || kind == "Added" || vague_.contains(name))
    {
        return "";
    }
    if (kind == "Changed")
    {
        return JudgeChange(told, known->second.get());
    }
    const std::string column = FirstDifference(
        known->second.get(), json_object_get(told, "RowDetails"));
    return column.empty() ? "" : column + " isn't what was announced";
}

std::string SignalChecker::TakeRawData(const std::string &table,
                                       const json_t *row)
{
    const json_t *key = json_object_get(row, "Key");
    const auto known = std::ranges::find_if(
        rows_,
        [&](const auto &entry)
        {
            return entry.first.first == table &&
                   json_equal(json_object_get(entry.second.get(), "Key"),
                              key) == 1;
        });
    if (known != rows_.end())
    {
        vague_.insert(known->first);
        return "";
    }
    return allSure_ ? "raw data of a row that isn't announced\n" : "";
}

std::string SignalChecker::Take(const Change &change)
{
    const std::string kind = change.member.substr(change.member.rfind('_') + 1);
    const JsonPtr told(json_loads(change.json.c_str(), 0, nullptr));
    const char *table =
        json_string_value(json_object_get(told.get(), "TableName"));
    json_t *row = json_object_get(told.get(), "RowDetails");
    const json_t *oid = json_object_get(row, "OID");
    if (table != nullptr && oid == nullptr)
    {
        return TakeRawData(table, row);
    }
    if (table == nullptr || !json_is_integer(oid))
    {
        return kind + " of no row: " + change.json + "\n";
    }
    const RowName name = {table, json_integer_value(oid)};
    last_ = name;
    std::string fault;
    if (IsSure(name))
    {
        fault = JudgeKind(kind, name);
        fault = fault.empty() ? JudgeContent(kind, name, told.get()) : fault;
    }
    if (!fault.empty())
    {
        const auto known = rows_.find(name);
        const JsonText before(known == rows_.end()
                                  ? nullptr
                                  : json_dumps(known->second.get(), 0));
        fault = kind + " of " + Print(name) + ": " + fault + "\n  before: " +
                (before == nullptr ? "nothing" : before.get()) +
                "\n  signal: " + change.json + "\n";
    }
    sure_.insert(name);
    vague_.erase(name);
    if (kind == "Removed")
    {
        rows_.erase(name);
    }
    else
    {
        rows_[name].reset(json_incref(row));
    }
    return fault;
}

std::string SignalChecker::Judge(const std::set<RowName> &rows) const
{
    std::string text;
    for (const auto &[name, row] : rows_)
    {
        if (!rows.contains(name) && !(mayVanish_ && mayVanish_(name)))
        {
            text += "a ghost: " + Print(name) + "\n";
        }
    }
    for (const RowName &name : rows)
    {
        if (IsSure(name) && !rows_.contains(name))
        {
            text += "not announced: " + Print(name) + "\n";
        }
    }
    return text;
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

} // namespace qdb::test
