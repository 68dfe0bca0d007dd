// Owners for what the platform libraries hand out.
#pragma once

#include "core/progress.h"
#include "platform/zo_base.h"
#include "platform/zoil.h"

#include <cstdlib>
#include <memory>
#include <span>

namespace qdb
{

struct FreeGeneric
{
    void operator()(void *memory) const
    {
        ZOILFreeGeneric(memory);
        NoteProgress();
    }
};

struct FreeMem
{
    void operator()(void *memory) const
    {
        ZOFreeMem(memory);
        NoteProgress();
    }
};

struct CFree
{
    void operator()(void *memory) const
    {
        std::free(memory);
    }
};

// A private copy of a Data Manager object.
using ObjectPtr = std::unique_ptr<DataObjHeader, FreeGeneric>;

// An object of the configuration client library.
using ConfigObjectPtr = std::unique_ptr<DataObjHeader, CFree>;

// A key text of the object-access library.
using KeyPtr = std::unique_ptr<char, FreeMem>;

// An OID list of the object-access library; NULL when there is none.
class OidList
{
  public:
    explicit OidList(uint32_t *list) : list_(list)
    {
    }

    bool IsNull() const
    {
        return list_ == nullptr;
    }

    // Not for a NULL list.
    std::span<const uint32_t> Oids() const
    {
        return {list_.get() + 1, list_.get()[0]};
    }

  private:
    std::unique_ptr<uint32_t, FreeGeneric> list_;
};

inline ObjectPtr FetchObject(uint32_t oid)
{
    ObjectPtr object(ZOILGetObjByOID(&oid));
    NoteProgress();
    return object;
}

// All objects of a type.
inline OidList ListChildren(uint32_t objType)
{
    constexpr uint32_t kRootOid = 1;
    OidList list(
        ZOILListChildOIDByType(&kRootOid, static_cast<uint16_t>(objType)));
    NoteProgress();
    return list;
}

} // namespace qdb
