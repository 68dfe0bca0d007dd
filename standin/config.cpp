// Groups and attributes of the configuration manager.
#include "standin/config.h"

#include "platform/zoil.h"
#include "standin/standin.h"
#include "standin/state.h"
#include "standin/store.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <string_view>

namespace standin
{
namespace
{

// By type.
constexpr const char *kInterfaces[] = {
    "CfgGroup",         "CfgIntAttribute",    "CfgStrAttribute",
    "CfgEnumAttribute", "CfgPasswdAttribute",
};

// A group is a header with the flags, the offset of the key, and the key.
std::vector<uint8_t> GroupBytes(uint32_t oid, const std::string &key)
{
    constexpr uint32_t kKeyAt = sizeof(DataObjHeader) + sizeof(uint32_t);
    DataObjHeader header = {};
    header.objSize = static_cast<uint32_t>(kKeyAt + key.size() + 1);
    header.objID = oid;
    header.objType = kGroupType;
    std::vector<uint8_t> bytes;
    const auto append = [&](const void *data, size_t size)
    {
        const auto *begin = static_cast<const uint8_t *>(data);
        bytes.insert(bytes.end(), begin, begin + size);
    };
    append(&header, sizeof(header));
    append(&kKeyAt, sizeof(kKeyAt));
    append(key.c_str(), key.size() + 1);
    return bytes;
}

// The key of the group that an attribute belongs to; "" when its key names
// none.
std::string GroupKey(const std::string &key)
{
    const size_t separator = key.find_last_of('#');
    return separator == std::string::npos ? "" : key.substr(0, separator);
}

// An OID of 0 stands for the next free one.
void MakeGroup(State *pState, const std::string &key, uint32_t oid = 0)
{
    if (pState->groups.contains(key))
    {
        return;
    }
    Object group;
    group.type = kGroupType;
    group.oid = oid != 0 ? oid : TakeOid(*pState, &pState->nextConfigOid);
    group.key = key;
    group.bytes = GroupBytes(group.oid, key);
    pState->groups.emplace(key, std::move(group));
}

Json Description(const Object &object)
{
    return Json(json_pack("{s:s,s:I,s:s,s:s,s:o*}", "interface",
                          kInterfaces[object.type - kGroupType], "oid",
                          json_int_t{object.oid}, "key", object.key.c_str(),
                          "path", AttributePath(object.key).c_str(), "values",
                          json_deep_copy(object.values.get())));
}

void WriteStateFile(const State &state)
{
    const Json integers(json_object());
    for (const auto &[key, value] : state.integers)
    {
        json_object_set_new(integers.get(), key.c_str(), json_integer(value));
    }
    const std::string temporary = state.stateFile + ".tmp";
    if (json_dump_file(integers.get(), temporary.c_str(), JSON_COMPACT) != 0 ||
        std::rename(temporary.c_str(), state.stateFile.c_str()) != 0)
    {
        Complain("can't write %s: %s", state.stateFile.c_str(),
                 std::strerror(errno));
    }
}

} // namespace

uint16_t ConfigType(const std::string &interfaceName)
{
    const std::string name =
        interfaceName.substr(interfaceName.find_last_of('.') + 1);
    const auto *known = std::ranges::find(kInterfaces, name);
    return known == std::end(kInterfaces)
               ? uint16_t{0}
               : static_cast<uint16_t>(kGroupType + (known - kInterfaces));
}

std::string AttributePath(const std::string &key)
{
    std::string path = "/com/vexo/tarnu/Config/Attributes/";
    for (const char c : key)
    {
        path += c == '#'               ? '/'
                : c == '.'             ? '_'
                : c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a')
                                       : c;
    }
    return path;
}

Json DescribeConfig(const std::string &prefix)
{
    const LockedState state;
    std::multimap<std::string_view, const Object *> sorted;
    for (const auto *objects : {&state->groups, &state->attributes})
    {
        for (const auto &[key, object] : *objects)
        {
            sorted.emplace(key, &object);
        }
    }
    Json list(json_array());
    for (auto at = sorted.lower_bound(prefix);
         at != sorted.end() && at->first.starts_with(prefix); ++at)
    {
        json_array_append_new(list.get(), Description(*at->second).release());
    }
    return list;
}

Error PutGroup(const std::string &key, uint32_t oid)
{
    const LockedState state;
    if (key.empty())
    {
        return "a group needs a key";
    }
    if (state->groups.contains(key))
    {
        return Print("there is a group %s already", key.c_str());
    }
    if (oid != 0 && IsTaken(*state, oid))
    {
        return Print("OID 0x%X is taken", oid);
    }
    MakeGroup(&*state, key, oid);
    return {};
}

Error RemoveGroup(const std::string &key)
{
    const LockedState state;
    const bool isUsed =
        std::ranges::any_of(state->attributes,
                            [&key](const auto &item)
                            {
                                return GroupKey(item.first) == key;
                            });
    if (isUsed)
    {
        return Print("the group %s has attributes", key.c_str());
    }
    return state->groups.erase(key) == 0
               ? Print("there is no group %s", key.c_str())
               : Error();
}

Error PutAttribute(const std::string &interfaceName, const std::string &key,
                   json_t *values, uint32_t oid)
{
    const uint16_t type = ConfigType(interfaceName);
    if (type == 0 || type == kGroupType)
    {
        return Print("%s isn't an attribute's interface",
                     interfaceName.c_str());
    }
    const std::string group = GroupKey(key);
    if (group.empty())
    {
        return Print("the key \"%s\" names no group", key.c_str());
    }
    const LockedState state;
    const auto found = state->attributes.find(key);
    const Object *const old =
        found == state->attributes.end() ? nullptr : &found->second;
    if (old != nullptr && old->type != type)
    {
        return Print("%s is an attribute of another interface", key.c_str());
    }
    const bool isNewOid = oid != 0 && (old == nullptr || old->oid != oid);
    if (isNewOid && IsTaken(*state, oid))
    {
        return Print("OID 0x%X is taken", oid);
    }
    Object object;
    object.type = type;
    object.oid = oid != 0         ? oid
                 : old != nullptr ? old->oid
                                  : TakeOid(*state, &state->nextConfigOid);
    object.key = key;
    object.values.reset(old != nullptr
                            ? json_incref(old->values.get())
                            : json_pack("{s:s}", "Key", key.c_str()));
    Error error = ChangeValues(&object, values);
    if (error.empty())
    {
        MakeGroup(&*state, group);
        state->attributes.insert_or_assign(key, std::move(object));
    }
    return error;
}

Error RemoveAttribute(const std::string &key)
{
    return LockedState()->attributes.erase(key) == 0
               ? Print("there is no attribute %s", key.c_str())
               : Error();
}

int IntegerAttribute(const std::string &key, int otherwise)
{
    const LockedState state;
    const auto found = state->integers.find(key);
    return found == state->integers.end() ? otherwise : found->second;
}

void SetIntegerAttribute(const std::string &key, int value)
{
    const LockedState state;
    state->integers[key] = value;
    if (!state->stateFile.empty())
    {
        WriteStateFile(*state);
    }
}

} // namespace standin
