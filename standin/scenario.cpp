// Scenario files.
//
// {"objects": [...], "attributes": [...], "faults": [...],
// "delays": [...]}: the entries are the arguments of the commands "create",
// "attribute", "fault" and "delay". An entry with
// "repeat": N stands for N of them: in its texts {i} is the copy's number from
// 0 and {n} from 1, and an integer may be written {"base": 100, "step": 5}.
#include "standin/scenario.h"

#include "standin/commands.h"
#include "standin/support.h"

#include <optional>
#include <string>

namespace standin
{
namespace
{

// More than any machine has of one kind; a slip of the pen must not fill the
// memory.
constexpr uint64_t kMostCopies = 100000;

std::string Replaced(std::string text, const std::string &what,
                     const std::string &by)
{
    for (size_t at = text.find(what); at != std::string::npos;
         at = text.find(what, at + by.size()))
    {
        text.replace(at, what.size(), by);
    }
    return text;
}

// The copy's number of {"base": B, "step": S}; nothing for any other value.
std::optional<json_int_t> ProgressionAt(const json_t *value, uint64_t copy)
{
    const auto base = SignedOf(json_object_get(value, "base"));
    const auto step = SignedOf(json_object_get(value, "step"));
    if (!base || !step || json_object_size(value) != 2)
    {
        return std::nullopt;
    }
    // Without a sign, since that may wrap around.
    return static_cast<json_int_t>(static_cast<uint64_t>(*base) +
                                   static_cast<uint64_t>(*step) * copy);
}

// The copy of an entry's part, new to the caller.
Json Expanded(json_t *part, uint64_t copy)
{
    if (const auto number = ProgressionAt(part, copy))
    {
        return Json(json_integer(*number));
    }
    if (const char *text = json_string_value(part))
    {
        const std::string numbered =
            Replaced(text, "{i}", std::to_string(copy));
        return Json(json_string(
            Replaced(numbered, "{n}", std::to_string(copy + 1)).c_str()));
    }
    if (json_is_array(part))
    {
        Json expanded(json_array());
        for (size_t i = 0; i < json_array_size(part); ++i)
        {
            json_array_append_new(
                expanded.get(),
                Expanded(json_array_get(part, i), copy).release());
        }
        return expanded;
    }
    if (json_is_object(part))
    {
        Json expanded(json_object());
        const char *name = nullptr;
        json_t *member = nullptr;
        json_object_foreach(part, name, member)
        {
            json_object_set_new(expanded.get(), name,
                                Expanded(member, copy).release());
        }
        return expanded;
    }
    return Json(json_incref(part));
}

// Carries out the command with these arguments, without an event.
Error Make(const Json &command, const char *op)
{
    json_object_set_new(command.get(), "op", json_string(op));
    json_object_set_new(command.get(), "announce", json_false());
    const Json reply = Execute(command.get());
    const char *error =
        json_string_value(json_object_get(reply.get(), "error"));
    return error == nullptr ? "" : error;
}

Error MakeEntry(json_t *entry, const char *op)
{
    const json_t *repeat = json_object_get(entry, "repeat");
    if (repeat == nullptr)
    {
        return Make(Json(json_copy(entry)), op);
    }
    const auto copies = UnsignedOf(repeat);
    if (!copies || *copies > kMostCopies)
    {
        return Print("\"repeat\" has to be a number up to %llu",
                     static_cast<unsigned long long>(kMostCopies));
    }
    Error first;
    for (uint64_t copy = 0; copy < *copies; ++copy)
    {
        const Error error = Make(Expanded(entry, copy), op);
        if (first.empty() && !error.empty())
        {
            first = Print("copy %llu: %s",
                          static_cast<unsigned long long>(copy), error.c_str());
        }
    }
    return first;
}

void MakeEntries(const char *path, const json_t *scenario, const char *list,
                 const char *op)
{
    const json_t *entries = json_object_get(scenario, list);
    if (entries != nullptr && !json_is_array(entries))
    {
        Complain("%s: \"%s\" has to be an array", path, list);
    }
    for (size_t i = 0; i < json_array_size(entries); ++i)
    {
        const Error error = MakeEntry(json_array_get(entries, i), op);
        if (!error.empty())
        {
            Complain("%s: %s, entry %zu: %s", path, list, i + 1, error.c_str());
        }
    }
}

} // namespace

void LoadScenario(const char *path)
{
    json_error_t error = {};
    const Json scenario(json_load_file(path, 0, &error));
    if (scenario == nullptr)
    {
        Complain("%s: line %d: %s", path, error.line, error.text);
        return;
    }
    MakeEntries(path, scenario.get(), "objects", "create");
    MakeEntries(path, scenario.get(), "attributes", "attribute");
    MakeEntries(path, scenario.get(), "faults", "fault");
    MakeEntries(path, scenario.get(), "delays", "delay");
}

} // namespace standin
