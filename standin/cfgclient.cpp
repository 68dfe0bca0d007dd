// The configuration client library: copies of groups and attributes.
#include "platform/cfgclient.h"

#include "standin/calls.h"
#include "standin/config.h"
#include "standin/standin.h"
#include "standin/state.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <string_view>

using namespace standin;

namespace
{

constexpr int kInvalidArgument = 2;
constexpr int kNoSuchObject = 256;
constexpr int kNoMemory = 272;

DataObjHeader *Copy(const Object &object)
{
    return static_cast<DataObjHeader *>(ClaimedCopy(object.bytes));
}

int GetObject(Call call, uint16_t type, const char *path, DataObjHeader **ppDOH)
{
    const Entry entry(call);
    if (entry.Fails())
    {
        return entry.Status();
    }
    if (path == nullptr || ppDOH == nullptr)
    {
        return kInvalidArgument;
    }
    const LockedState state;
    const auto &objects = state->Config(type);
    const auto found =
        std::ranges::find_if(objects,
                             [&](const auto &item)
                             {
                                 return item.second.type == type &&
                                        AttributePath(item.first) == path;
                             });
    if (found == objects.end())
    {
        return kNoSuchObject;
    }
    DataObjHeader *copy = Copy(found->second);
    if (copy == nullptr)
    {
        return kNoMemory;
    }
    *ppDOH = copy;
    return 0;
}

} // namespace

int CfgGroup_get_object(const char *, const char *path, DataObjHeader **ppDOH)
{
    return GetObject(Call("CfgGroup_get_object"), kGroupType, path, ppDOH);
}

int CfgIntAttribute_get_object(const char *, const char *path,
                               DataObjHeader **ppDOH)
{
    return GetObject(Call("CfgIntAttribute_get_object"), kIntAttributeType,
                     path, ppDOH);
}

int CfgStrAttribute_get_object(const char *, const char *path,
                               DataObjHeader **ppDOH)
{
    return GetObject(Call("CfgStrAttribute_get_object"), kStrAttributeType,
                     path, ppDOH);
}

int CfgEnumAttribute_get_object(const char *, const char *path,
                                DataObjHeader **ppDOH)
{
    return GetObject(Call("CfgEnumAttribute_get_object"), kEnumAttributeType,
                     path, ppDOH);
}

int CfgPasswdAttribute_get_object(const char *, const char *path,
                                  DataObjHeader **ppDOH)
{
    return GetObject(Call("CfgPasswdAttribute_get_object"),
                     kPasswdAttributeType, path, ppDOH);
}

int client_get_objects(const char *interfaceName, const char *,
                       uintptr_t **ppList)
{
    if (ppList == nullptr)
    {
        return kInvalidArgument;
    }
    *ppList = nullptr;
    const Entry entry(Call("client_get_objects"));
    if (entry.Fails())
    {
        return entry.Status();
    }
    const uint16_t type =
        interfaceName == nullptr ? uint16_t{0} : ConfigType(interfaceName);
    if (type == 0)
    {
        return kNoSuchObject;
    }
    const LockedState state;
    const auto &objects = state->Config(type);
    auto *list = static_cast<uintptr_t *>(
        std::calloc(objects.size() + 1, sizeof(uintptr_t)));
    if (list == nullptr)
    {
        return kNoMemory;
    }
    *ppList = list;
    for (const auto &[key, object] : objects)
    {
        if (object.type != type)
        {
            continue;
        }
        DataObjHeader *copy = Copy(object);
        if (copy == nullptr)
        {
            return kNoMemory; // the list is good as far as it goes
        }
        list[++list[0]] = reinterpret_cast<uintptr_t>(copy);
    }
    return 0;
}

int client_get_obj_body_ptr(const DataObjHeader *object, uint32_t **ppBody)
{
    // Two words: the flags and the offset of the key.
    constexpr uint32_t kBody = 16;
    constexpr uint32_t kLeastSize = kBody + 2 * sizeof(uint32_t);
    const Entry entry(Call("client_get_obj_body_ptr"),
                      object == nullptr ? 0 : object->objID);
    if (entry.Fails())
    {
        return entry.Status();
    }
    if (object == nullptr || ppBody == nullptr || object->objSize < kLeastSize)
    {
        return kInvalidArgument;
    }
    // The interface takes a read-only object and gives a body that isn't.
    auto *bytes = reinterpret_cast<char *>(const_cast<DataObjHeader *>(object));
    *ppBody = reinterpret_cast<uint32_t *>(bytes + kBody);
    return 0;
}

void FreeObjectList(uintptr_t *list)
{
    const Entry entry(Call("FreeObjectList"));
    if (list == nullptr)
    {
        return;
    }
    for (uintptr_t i = 1; i <= list[0]; ++i)
    {
        std::free(std::bit_cast<void *>(list[i]));
    }
    std::free(list);
}

int CfgSetAttributeInt(const char *key, int value, int, int)
{
    const Entry entry(Call("CfgSetAttributeInt"));
    if (entry.Fails())
    {
        return entry.Status();
    }
    if (key == nullptr)
    {
        return kInvalidArgument;
    }
    SetIntegerAttribute(key, value);
    return 0;
}
