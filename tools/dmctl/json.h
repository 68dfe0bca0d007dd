// JSON values that release themselves.
//
// A thin cover over Jansson: ownership, and one place that notices a value
// which could not be made.
#pragma once

#include "core/json.h"

#include <cstdint>
#include <new>
#include <stdexcept>
#include <string>

namespace qdb
{

using Json = JsonPtr;

inline Json Number(uint64_t number)
{
    return Json(json_integer(static_cast<json_int_t>(number)));
}

// NULL when the text is not valid UTF-8; Put and Append then complain.
inline Json Text(const std::string &text)
{
    return Json(json_stringn(text.data(), text.size()));
}

// Adds a member to an object, or replaces it. Throws std::invalid_argument
// when there is no value to add.
inline void Put(const Json &object, const std::string &name, Json value)
{
    if (json_object_set_new(object.get(), name.c_str(), value.release()) != 0)
    {
        throw std::invalid_argument("not valid UTF-8: " + name);
    }
}

// The same for the end of an array.
inline void Append(const Json &array, Json value)
{
    if (json_array_append_new(array.get(), value.release()) != 0)
    {
        throw std::invalid_argument("not valid UTF-8");
    }
}

// The text of a member of `object`; "" when there is no such text.
inline std::string TextOf(const json_t *object, const char *name)
{
    const char *text = json_string_value(json_object_get(object, name));
    return text == nullptr ? "" : text;
}

// The number of a member of `object`; 0 when there is no such number.
inline uint64_t NumberOf(const json_t *object, const char *name)
{
    return static_cast<uint64_t>(
        json_integer_value(json_object_get(object, name)));
}

// The value as JSON text, in the form that Jansson's flags ask for.
inline std::string Dump(const json_t *value, size_t flags = JSON_COMPACT)
{
    const JsonText text(json_dumps(value, flags | JSON_ENCODE_ANY));
    if (text == nullptr)
    {
        throw std::bad_alloc();
    }
    return text.get();
}

} // namespace qdb
