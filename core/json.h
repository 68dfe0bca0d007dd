// Owners for Jansson values and texts.
#pragma once

#include <jansson.h>

#include <cstdlib>
#include <memory>

namespace qdb
{

struct DropReference
{
    void operator()(json_t *value) const
    {
        json_decref(value);
    }
};
using JsonPtr = std::unique_ptr<json_t, DropReference>;

// A further reference to a value that others own; NULL stays NULL.
inline JsonPtr Share(json_t *value)
{
    return JsonPtr(json_incref(value));
}

struct FreeJsonText
{
    void operator()(char *text) const
    {
        std::free(text);
    }
};

// A text that json_dumps made.
using JsonText = std::unique_ptr<char, FreeJsonText>;

} // namespace qdb
