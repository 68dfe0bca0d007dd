// The object-access library: objects, lists of OIDs, keys, the listener.
//
// What is handed out is always a copy from malloc or calloc, so that any
// release function may free it.
#include "platform/zoil.h"

#include "standin/calls.h"
#include "standin/events.h"
#include "standin/standin.h"
#include "standin/state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

using namespace standin;

namespace
{

constexpr int kNoSuchObject = 256;

uint32_t OidOf(const uint32_t *pOID)
{
    return pOID == nullptr ? 0 : *pOID;
}

DataObjHeader *Copy(const Object *object)
{
    return object == nullptr
               ? nullptr
               : static_cast<DataObjHeader *>(ClaimedCopy(object->bytes));
}

template <typename Oids>
uint32_t *List(const Oids &oids)
{
    auto *list =
        static_cast<uint32_t *>(std::calloc(oids.size() + 1, sizeof(uint32_t)));
    if (list != nullptr)
    {
        list[0] = static_cast<uint32_t>(oids.size());
        std::ranges::copy(oids, list + 1);
    }
    return list;
}

// The text at the offset that stands in the object's word at 20; NULL when it
// doesn't lie inside the object.
const char *ConfigKey(const DataObjHeader *pDOH)
{
    constexpr size_t kKeyWord = 20;
    if (pDOH->objSize < kKeyWord + sizeof(uint32_t))
    {
        return nullptr;
    }
    const char *object = reinterpret_cast<const char *>(pDOH);
    uint32_t offset = 0;
    std::memcpy(&offset, object + kKeyWord, sizeof(offset));
    if (offset == 0 || offset >= pDOH->objSize ||
        std::memchr(object + offset, '\0', pDOH->objSize - offset) == nullptr)
    {
        return nullptr;
    }
    return object + offset;
}

} // namespace

int ZOILAddEventListener(ZOILEventListener listener)
{
    const Entry entry(Call("ZOILAddEventListener"));
    return entry.Fails() ? entry.Status() : AddListener(listener);
}

int ZOILRemoveEventListener(ZOILEventListener listener)
{
    const Entry entry(Call("ZOILRemoveEventListener"));
    return entry.Fails() ? entry.Status() : RemoveListener(listener);
}

int ZOILIsDataManagerReady(void)
{
    const Entry entry(Call("ZOILIsDataManagerReady"));
    if (entry.Fails())
    {
        return entry.Status();
    }
    return LockedState()->ready ? 1 : 0;
}

DataObjHeader *ZOILGetObjByOID(const uint32_t *pOID)
{
    const Entry entry(Call("ZOILGetObjByOID"), OidOf(pOID));
    if (entry.Fails() || pOID == nullptr)
    {
        return nullptr;
    }
    return Copy(LockedState()->Find(*pOID));
}

DataObjHeader *ZOILGetObjByKey(const char *key)
{
    const Entry entry(Call("ZOILGetObjByKey"));
    if (entry.Fails() || key == nullptr)
    {
        return nullptr;
    }
    return Copy(LockedState()->FindKey(key));
}

uint32_t *ZOILListChildOIDByType(const uint32_t *pParentOID, uint16_t objType)
{
    const Entry entry(Call("ZOILListChildOIDByType"), OidOf(pParentOID));
    if (entry.Fails() || pParentOID == nullptr)
    {
        return nullptr;
    }
    const LockedState state;
    const auto found = state->byType.find(objType);
    if (found == state->byType.end() || IsConfigType(objType))
    {
        return List(std::vector<uint32_t>());
    }
    if (*pParentOID == kRootOid)
    {
        return List(found->second);
    }
    std::vector<uint32_t> children;
    std::ranges::copy_if(
        found->second, std::back_inserter(children),
        [&](uint32_t oid)
        {
            const auto &parents = state->objects.at(oid).parents;
            return std::ranges::find(parents, *pParentOID) != parents.end();
        });
    return List(children);
}

uint32_t *ZOILListParentOID(const uint32_t *pOID)
{
    const Entry entry(Call("ZOILListParentOID"), OidOf(pOID));
    if (entry.Fails() || pOID == nullptr)
    {
        return nullptr;
    }
    const LockedState state;
    const Object *object = state->Find(*pOID);
    return object == nullptr ? nullptr : List(object->parents);
}

int ZOILDOGetObjKeyUTF8(const DataObjHeader *pDOH, char **ppKey)
{
    const Entry entry(Call("ZOILDOGetObjKeyUTF8"),
                      pDOH == nullptr ? 0 : pDOH->objID);
    if (entry.Fails())
    {
        return entry.Status();
    }
    if (pDOH == nullptr || ppKey == nullptr)
    {
        return kNoSuchObject;
    }
    char *key = nullptr;
    if (IsConfigType(pDOH->objType))
    {
        const char *text = ConfigKey(pDOH);
        key = text == nullptr ? nullptr : strdup(text);
    }
    else
    {
        const LockedState state;
        const Object *object = state->Find(pDOH->objID);
        key = object == nullptr ? nullptr : strdup(object->key.c_str());
    }
    if (key == nullptr)
    {
        return kNoSuchObject;
    }
    *ppKey = key;
    return 0;
}

void ZOILFreeGeneric(void *memory)
{
    const Entry entry(Call("ZOILFreeGeneric"));
    std::free(memory);
}
