// Short lists of object types, sorted at start-up and searched by halving.
#pragma once

#include <cstdlib>
#include <span>

namespace qdb
{

inline int CompareTypes(const void *a, const void *b)
{
    const int left = *static_cast<const int *>(a);
    const int right = *static_cast<const int *>(b);
    return left < right ? -1 : left > right ? 1 : 0;
}

inline void SortTypes(std::span<int> types)
{
    std::qsort(types.data(), types.size(), sizeof(int), CompareTypes);
}

// The position of a type in a sorted list, -1 when it isn't there.
inline int FindType(std::span<const int> types, int objType)
{
    size_t low = 0;
    size_t high = types.size();
    while (low < high)
    {
        const size_t middle = (low + high) / 2;
        const int order = CompareTypes(&objType, &types[middle]);
        if (order == 0)
        {
            return static_cast<int>(middle);
        }
        (order < 0 ? high : low) = order < 0 ? middle : middle + 1;
    }
    return -1;
}

} // namespace qdb
