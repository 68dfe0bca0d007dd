// The members of a command's request and of its reply.
#pragma once

#include "standin/standin.h"
#include "standin/support.h"

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace standin
{

// Each function refuses a member of the wrong kind; those without a value to
// fall back on refuse a missing one, too.
class Request
{
  public:
    // Borrows the request, which may be anything, NULL included.
    explicit Request(const json_t *request) : request_(request)
    {
    }

    json_t *Get(const char *name) const
    {
        return json_object_get(request_, name);
    }

    bool Has(const char *name) const
    {
        return Get(name) != nullptr && !json_is_null(Get(name));
    }

    bool IsTrue(const char *name) const
    {
        return json_is_true(Get(name));
    }

    template <typename T>
    T Number(const char *name) const
    {
        return NumberOf<T>(Get(name), name);
    }

    template <typename T>
    T Number(const char *name, T otherwise) const
    {
        return Has(name) ? Number<T>(name) : otherwise;
    }

    template <typename T>
    std::vector<T> Numbers(const char *name) const
    {
        std::vector<T> numbers;
        for (const json_t *element : Elements(name))
        {
            numbers.push_back(NumberOf<T>(element, name));
        }
        return numbers;
    }

    std::string Text(const char *name) const
    {
        const char *text = json_string_value(Get(name));
        if (text == nullptr)
        {
            Refuse("\"%s\" has to be a text", name);
        }
        return text;
    }

    std::string Text(const char *name, const char *otherwise) const
    {
        return Has(name) ? Text(name) : otherwise;
    }

    // Of an array that may be missing.
    std::vector<json_t *> Elements(const char *name) const
    {
        if (Has(name) && !json_is_array(Get(name)))
        {
            Refuse("\"%s\" has to be an array", name);
        }
        std::vector<json_t *> elements;
        for (size_t i = 0; i < json_array_size(Get(name)); ++i)
        {
            elements.push_back(json_array_get(Get(name), i));
        }
        return elements;
    }

    // The number that an element of the member `name` is.
    template <typename T>
    static T NumberOf(const json_t *value, const char *name)
    {
        const auto number = [value]
        {
            if constexpr (std::is_signed_v<T>)
            {
                return SignedOf(value);
            }
            else
            {
                return UnsignedOf(value);
            }
        }();
        if (!number || !std::in_range<T>(*number))
        {
            Refuse("\"%s\" has to be an integer of %zu bits", name,
                   sizeof(T) * 8);
        }
        return static_cast<T>(*number);
    }

  private:
    const json_t *const request_;
};

// Refuses what has failed.
inline void Check(const Error &error)
{
    if (!error.empty())
    {
        Refuse("%s", error.c_str());
    }
}

// --- Members of a reply

template <typename T>
void SetNumber(json_t *reply, const char *name, T number)
{
    json_object_set_new(reply, name,
                        json_integer(static_cast<json_int_t>(number)));
}

template <typename T>
json_t *NumberArray(const std::vector<T> &numbers)
{
    json_t *array = json_array();
    for (const T number : numbers)
    {
        json_array_append_new(array, json_integer(number));
    }
    return array;
}

// A new array in the reply, which owns it.
inline json_t *AddArray(json_t *reply, const char *name)
{
    json_t *array = json_array();
    json_object_set_new(reply, name, array);
    return array;
}

} // namespace standin
