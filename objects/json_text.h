// Rows from and to their JSON texts.
//
// Jansson goes on when a byte of a name or value finds no memory: it leaves the
// byte out, and may then read a text past its end. Here the first allocation
// that fails ends the work, and what came of it is dropped.
#pragma once

#include "core/json.h"

namespace qdb
{

// json_loads; NULL also without memory. *pError is set for what isn't JSON;
// pError may be NULL.
JsonPtr ParseJson(const char *text, json_error_t *pError);

// json_dumps; NULL for NULL, for what isn't a container, and without memory.
JsonText PrintJson(const json_t *value);

} // namespace qdb
