// Lines for people, with and without colours, and lines for programs.
#include "tools/qdb/render.h"

#include "tools/qdb/value.h"

#include <vector>

namespace qdb::tool
{
namespace
{

constexpr std::string_view kTag = "SingleRecordEtag";

// Parameters of the terminal's colour sequence.
constexpr std::string_view kDim = "2";
constexpr std::string_view kRed = "31";
constexpr std::string_view kGreen = "32";
constexpr std::string_view kYellow = "33";
constexpr std::string_view kCyan = "36";

std::string Paint(std::string_view text, std::string_view parameter,
                  bool colour)
{
    if (!colour || text.empty())
    {
        return std::string(text);
    }
    std::string painted = "\x1b[";
    painted.append(parameter).append("m").append(text).append("\x1b[0m");
    return painted;
}

std::string Item(const std::string &name, const std::string &old,
                 const std::string &value, bool colour)
{
    std::string item = name + ' ';
    item += Paint(old, kRed, colour);
    item += old.empty() ? "-> " : " -> ";
    return item + Paint(value, kGreen, colour);
}

// Of an array property, the elements that differ.
void AddElements(const std::string &name, json_t *old, json_t *elements,
                 bool colour, std::vector<std::string> &items)
{
    size_t i;
    json_t *element;
    json_array_foreach(elements, i, element)
    {
        json_t *before = json_array_get(old, i);
        if (json_equal(before, element) != 1)
        {
            items.push_back(Item(name + '[' + std::to_string(i) + ']',
                                 before == nullptr ? "" : ValueText(before),
                                 ValueText(element), colour));
        }
    }
    if (json_array_size(elements) < json_array_size(old))
    {
        items.push_back(name + " now has " +
                        std::to_string(json_array_size(elements)) +
                        " elements");
    }
}

std::vector<std::string> ChangedItems(const Change &change, bool colour)
{
    std::vector<std::string> items;
    const char *name;
    json_t *value;
    json_object_foreach(change.changed.get(), name, value)
    {
        json_t *old = json_object_get(change.previous.get(), name);
        if (kTag == name)
        {
            continue;
        }
        if (json_is_array(value) && json_is_array(old))
        {
            AddElements(Printable(name), old, value, colour, items);
            continue;
        }
        items.push_back(Item(Printable(name),
                             old == nullptr ? "" : ValueText(old),
                             ValueText(value), colour));
    }
    return items;
}

const char *KindName(Kind kind)
{
    switch (kind)
    {
    case Kind::Present:
        return "Present";
    case Kind::Added:
        return "Added";
    case Kind::Changed:
        return "Changed";
    case Kind::Removed:
        return "Removed";
    }
    return "";
}

std::string_view KindColour(Kind kind)
{
    switch (kind)
    {
    case Kind::Present:
        return kDim;
    case Kind::Added:
        return kGreen;
    case Kind::Changed:
        return kYellow;
    case Kind::Removed:
        return kRed;
    }
    return kDim;
}

const char *OperationName(int operation)
{
    return operation == kInsert   ? "insert"
           : operation == kUpdate ? "update"
                                  : "delete";
}

} // namespace

std::string ForPeople(const Change &change, std::string_view time, bool colour)
{
    std::string line =
        Paint(time, kDim, colour) + ' ' +
        Paint(Printable(change.table), kCyan, colour) + ' ' +
        std::to_string(change.oid) + ' ' +
        Paint(KindName(change.kind), KindColour(change.kind), colour);
    const std::string key = Shortened(Printable(change.key));
    line += key.empty() ? "" : ' ' + key;
    const char *separator = ": ";
    for (const std::string &item : ChangedItems(change, colour))
    {
        line += separator + item;
        separator = ", ";
    }
    return line;
}

std::string ForPeople(const Resync &resync, std::string_view time, bool colour)
{
    return Paint(time, kDim, colour) + ' ' + Paint("resync", kYellow, colour) +
           ", " + resync.text + ": " + std::to_string(resync.added) +
           " added, " + std::to_string(resync.changed) + " changed, " +
           std::to_string(resync.removed) + " removed";
}

std::string ForPeople(const PipeRecord &record, std::string_view time,
                      bool colour)
{
    return Paint(time, kDim, colour) + " pipe " +
           Paint(record.table, kCyan, colour) + " row " +
           std::to_string(record.rowid) + ' ' + OperationName(record.operation);
}

std::string ForPrograms(const Change &change)
{
    const JsonPtr line(json_pack("{ss ss sI sO}", "kind", KindName(change.kind),
                                 "table", change.table.c_str(), "oid",
                                 static_cast<json_int_t>(change.oid), "row",
                                 change.row.get()));
    if (change.kind == Kind::Changed)
    {
        json_object_set(line.get(), "changed", change.changed.get());
        json_object_set(line.get(), "previous", change.previous.get());
    }
    return JsonLine(line.get());
}

std::string ForPrograms(const Resync &resync)
{
    const JsonPtr line(
        json_pack("{ss ss sI sI sI}", "kind", "Resync", "reason", resync.reason,
                  "added", static_cast<json_int_t>(resync.added), "changed",
                  static_cast<json_int_t>(resync.changed), "removed",
                  static_cast<json_int_t>(resync.removed)));
    return JsonLine(line.get());
}

std::string ForPrograms(const PipeRecord &record)
{
    const JsonPtr line(json_pack("{ss ss sI ss}", "kind", "Pipe", "table",
                                 record.table.c_str(), "rowid",
                                 static_cast<json_int_t>(record.rowid),
                                 "operation", OperationName(record.operation)));
    return JsonLine(line.get());
}

} // namespace qdb::tool
