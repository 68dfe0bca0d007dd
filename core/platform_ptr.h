// Owners for what the platform libraries hand out, and the calls that give it.
//
// Another process answers these calls, and takes its time: none is made with
// the turn at the database in hand.
#pragma once

#include "core/fate.h"
#include "core/object_order.h"
#include "core/waiting.h"
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
        const Wait wait;
        ForgetFetch(memory);
        ZOILFreeGeneric(memory);
    }
};

struct FreeMem
{
    void operator()(void *memory) const
    {
        const Wait wait;
        ZOFreeMem(memory);
    }
};

struct CFree
{
    void operator()(void *memory) const
    {
        ForgetFetch(memory);
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

inline void NoteWhetherThere(const DataObjHeader *object)
{
    if (object == nullptr)
    {
        NoteFate(Fate::Vanished);
    }
}

// The object as the Data Manager has it now, NULL: not at all. Notes when it
// was asked, for object_order.h.
inline ObjectPtr FetchObject(uint32_t oid)
{
    const Wait wait;
    const uint64_t asked = Tick();
    ObjectPtr object(ZOILGetObjByOID(&oid));
    NoteFetch(object.get(), asked);
    NoteWhetherThere(object.get());
    return object;
}

inline ObjectPtr FetchByKey(const char *key)
{
    const Wait wait;
    const uint64_t asked = Tick();
    ObjectPtr object(ZOILGetObjByKey(key));
    NoteFetch(object.get(), asked);
    NoteWhetherThere(object.get());
    return object;
}

// Whose children have no parent that could be fetched.
inline constexpr uint32_t kRootOid = 1;

// A relation of an object that is in hand: its parent, say.
inline ObjectPtr FetchRelated(uint32_t oid)
{
    const Wait wait;
    ObjectPtr object(ZOILGetObjByOID(&oid));
    if (object == nullptr && oid != kRootOid)
    {
        NoteLack();
    }
    return object;
}

inline OidList ListParents(uint32_t oid)
{
    const Wait wait;
    return OidList(ZOILListParentOID(&oid));
}

// All objects of a type.
inline OidList ListChildren(uint32_t objType)
{
    const Wait wait;
    return OidList(
        ZOILListChildOIDByType(&kRootOid, static_cast<uint16_t>(objType)));
}

} // namespace qdb
