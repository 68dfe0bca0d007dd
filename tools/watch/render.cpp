// Lines for people, with and without colours, and lines for programs.
#include "tools/watch/render.h"

#include "tools/watch/text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <vector>

namespace qdb::watch
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

// --- Key of a row --------------------------------------------------------

// How well a column names its row, 0 best; the path in front of the field's
// own name doesn't count.
size_t NameRank(std::string_view column)
{
    constexpr std::string_view kPath = "_DOT_";
    constexpr std::array<std::string_view, 4> kNames = {"key", "fqdd",
                                                        "objname", "name"};
    const size_t path = column.rfind(kPath);
    std::string field(path == std::string_view::npos
                          ? column
                          : column.substr(path + kPath.size()));
    std::ranges::transform(field, field.begin(),
                           [](unsigned char c)
                           {
                               return static_cast<char>(std::tolower(c));
                           });
    return static_cast<size_t>(std::ranges::find(kNames, field) -
                               kNames.begin());
}

std::string RowKey(json_t *row)
{
    std::string key;
    size_t best = NameRank("");
    const char *name;
    json_t *value;
    json_object_foreach(row, name, value)
    {
        if (NameRank(name) < best && json_string_length(value) > 0)
        {
            best = NameRank(name);
            key = json_string_value(value);
        }
    }
    return Shortened(Printable(key));
}

// --- Changed columns -----------------------------------------------------

std::string Item(const std::string &name, const std::string &old,
                 const std::string &value, bool colour)
{
    std::string item = name + ' ';
    item += Paint(old, kRed, colour);
    item += old.empty() ? "-> " : " -> ";
    return item + Paint(value, kGreen, colour);
}

// The element with this index, NULL if the array has none.
json_t *ElementAt(json_t *array, json_t *index)
{
    size_t i;
    json_t *element;
    json_array_foreach(array, i, element)
    {
        if (json_equal(json_object_get(element, "ARR_INDEX"), index) == 1)
        {
            return element;
        }
    }
    return nullptr;
}

// An element without its index; "" for NULL.
std::string ElementText(json_t *element)
{
    if (element == nullptr)
    {
        return "";
    }
    if (json_t *value = json_object_get(element, "VAL"))
    {
        return ValueText(value);
    }
    const JsonPtr rest(json_copy(element));
    json_object_del(rest.get(), "ARR_INDEX");
    return ValueText(rest.get());
}

bool IsArrayProperty(const json_t *value)
{
    return json_is_array(value) &&
           (json_array_size(value) == 0 ||
            json_object_get(json_array_get(value, 0), "ARR_INDEX") != nullptr);
}

// Of an array property the signal names the elements that differ. It names
// none when the array has only become longer.
void AddElements(const Change &change, const char *name, json_t *elements,
                 bool colour, std::vector<std::string> &items)
{
    json_t *old = json_object_get(change.previous.get(), name);
    size_t i;
    json_t *element;
    json_array_foreach(elements, i, element)
    {
        json_t *index = json_object_get(element, "ARR_INDEX");
        items.push_back(Item(Printable(name) + '[' + ValueText(index) + ']',
                             ElementText(ElementAt(old, index)),
                             ElementText(element), colour));
    }
    if (json_array_size(elements) == 0)
    {
        const json_t *now = json_object_get(change.row.get(), name);
        items.push_back(Printable(name) + " now has " +
                        std::to_string(json_array_size(now)) + " elements");
    }
}

std::vector<std::string> ChangedItems(const Change &change, bool colour)
{
    std::vector<std::string> items;
    const char *name;
    json_t *value;
    json_object_foreach(change.changed.get(), name, value)
    {
        if (kTag == name)
        {
            continue;
        }
        if (IsArrayProperty(value))
        {
            AddElements(change, name, value, colour, items);
            continue;
        }
        const json_t *old = json_object_get(change.previous.get(), name);
        items.push_back(Item(Printable(name), old ? ValueText(old) : "",
                             ValueText(value), colour));
    }
    return items;
}

std::string_view KindColour(Kind kind)
{
    switch (kind)
    {
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
    const std::string key = RowKey(change.row.get());
    line += key.empty() ? "" : ' ' + key;
    const char *separator = ": ";
    for (const std::string &item : ChangedItems(change, colour))
    {
        line += separator + item;
        separator = ", ";
    }
    return line;
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
    return Dump(line.get(), 0);
}

std::string ForPrograms(const PipeRecord &record)
{
    const JsonPtr line(json_pack("{ss ss sI ss}", "kind", "Pipe", "table",
                                 record.table.c_str(), "rowid",
                                 static_cast<json_int_t>(record.rowid),
                                 "operation", OperationName(record.operation)));
    return Dump(line.get(), 0);
}

} // namespace qdb::watch
