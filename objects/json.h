// Owners for Jansson values and texts.
#pragma once

#include "core/platform_ptr.h"

#include <jansson.h>

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

// A text that json_dumps made.
using JsonText = std::unique_ptr<char, CFree>;

} // namespace qdb
