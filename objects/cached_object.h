// Copies of objects that outlive the fetch that gave them.
#pragma once

#include "core/platform_ptr.h"

#include <cstdint>

namespace qdb
{

// A copy of the `size` bytes of an object; NULL without memory.
ObjectPtr CopyObject(const void *object, uint32_t size);

enum class Difference
{
    NoCopy,
    Size,
    Bytes,
    None,
};

// The last copy of an object, to tell whether the next one differs. Static
// storage, never destroyed; guarded by what guards its owner. The objects hold
// objSize bytes.
struct CachedObject
{
    DataObjHeader *copy = nullptr;
    // Cut to 16 bits, so that an object of 64 KiB or more always differs.
    uint16_t size = 0;

    // Replaces the copy. False without memory; then there is none.
    bool Store(const DataObjHeader *pDOH);

    // Frees the copy, if there is one.
    void Clear();

    Difference Compare(const DataObjHeader *pDOH) const;
};

} // namespace qdb
