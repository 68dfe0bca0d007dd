#include "objects/cached_object.h"

#include <cstdlib>
#include <cstring>

namespace qdb
{

ObjectPtr CopyObject(const void *object, uint32_t size)
{
    // From calloc, so that the platform can release it.
    ObjectPtr copy(static_cast<DataObjHeader *>(std::calloc(1, size)));
    if (copy != nullptr)
    {
        std::memcpy(copy.get(), object, size);
    }
    return copy;
}

bool CachedObject::Store(const DataObjHeader *pDOH)
{
    Clear();
    copy = CopyObject(pDOH, pDOH->objSize).release();
    size = static_cast<uint16_t>(pDOH->objSize);
    return copy != nullptr;
}

void CachedObject::Clear()
{
    ObjectPtr(copy).reset();
    copy = nullptr;
}

Difference CachedObject::Compare(const DataObjHeader *pDOH) const
{
    if (copy == nullptr)
    {
        return Difference::NoCopy;
    }
    if (size != pDOH->objSize)
    {
        return Difference::Size;
    }
    return std::memcmp(copy, pDOH, size) == 0 ? Difference::None
                                              : Difference::Bytes;
}

} // namespace qdb
