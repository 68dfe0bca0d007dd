#include "objects/json_text.h"

#include <utility>

namespace qdb
{
namespace
{

// A thread's allocations for Jansson while one of the calls below runs. After
// the first that fails it gets no more, so that nothing held by halves is used.
thread_local bool tIsWatched = false;
thread_local bool tLacksMemory = false;

// The one exception: Jansson keeps the token that it reads in a block of 16
// bytes, asks for 32 when a number has more, and asserts that it got them. The
// only others of that size are nodes of string values, which find no memory for
// their names next. Nothing from here outlives the parse, and nothing is given
// from here once anything was refused: a string of which only the first bytes
// were kept would be copied past its end.
constexpr size_t kTokenSize = 32;
constexpr int kTokens = 2;
alignas(16) thread_local char tTokens[kTokens][kTokenSize];
thread_local int tTokensLeft = 0;

void *Refuse(size_t size)
{
    if (tIsWatched)
    {
        tLacksMemory = true;
    }
    if (size != kTokenSize)
    {
        tTokensLeft = 0;
    }
    return tTokensLeft > 0 ? tTokens[--tTokensLeft] : nullptr;
}

void *Allocate(size_t size)
{
    void *memory = tLacksMemory ? nullptr : std::malloc(size);
    return memory == nullptr ? Refuse(size) : memory;
}

void Free(void *memory)
{
    for (char *token : tTokens)
    {
        if (memory == token)
        {
            return;
        }
    }
    std::free(memory);
}

// Before any thread starts. What was allocated until then is free()'s, too.
[[maybe_unused]] const bool gIsInstalled = []
{
    json_set_alloc_funcs(Allocate, Free);
    return true;
}();

// The result of a call of Jansson's if no allocation failed in it.
template <typename Result, typename Call>
Result Watch(Call call)
{
    tIsWatched = true;
    Result result(call());
    tIsWatched = false;
    if (std::exchange(tLacksMemory, false))
    {
        result.reset();
    }
    tTokensLeft = 0;
    return result;
}

} // namespace

JsonPtr ParseJson(const char *text, json_error_t *pError)
{
    tTokensLeft = kTokens;
    return Watch<JsonPtr>(
        [&]
        {
            return json_loads(text, 0, pError);
        });
}

JsonText PrintJson(const json_t *value)
{
    return Watch<JsonText>(
        [&]
        {
            return json_dumps(value, 0);
        });
}

} // namespace qdb
