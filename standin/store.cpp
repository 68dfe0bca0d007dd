// The Data Manager's objects.
//
// An object and its event change together under the state's lock, so that
// events stand in the queue in the order of the changes.
#include "standin/store.h"

#include "platform/zoil.h"
#include "standin/events.h"
#include "standin/layout.h"
#include "standin/object_builder.h"
#include "standin/standin.h"
#include "standin/state.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace standin
{
namespace
{

constexpr size_t kStatusAt = offsetof(DataObjHeader, objStatus);

// A record of creations holds no more OIDs than that.
constexpr size_t kLongestList = 4000;

std::string DefaultKey(uint16_t type, uint32_t oid)
{
    return Print("%X||Object.%u", type, oid);
}

// The text that `given`, all or some of an object's values, has for the key
// column of the object's table; NULL when it has none.
const char *KeyIn(uint16_t type, json_t *values, const json_t *given)
{
    const qdb::Table *table = TableFor(type, values);
    const qdb::Column *column = table == nullptr ? nullptr : KeyColumn(*table);
    return column == nullptr
               ? nullptr
               : json_string_value(json_object_get(given, column->name));
}

// Sets a member, behind all others; a null removes it.
void SetMember(json_t *values, const char *name, const json_t *value)
{
    json_object_del(values, name);
    if (!json_is_null(value))
    {
        json_object_set_new(values, name, json_deep_copy(value));
    }
}

Error Unknown(uint32_t oid)
{
    return Print("there is no object 0x%X", oid);
}

void Insert(State *pState, uint32_t oid, Object object)
{
    pState->byType[object.type].insert(oid);
    pState->objects.insert_or_assign(oid, std::move(object));
}

void Remove(State *pState, uint32_t oid)
{
    const auto found = pState->objects.find(oid);
    if (found != pState->objects.end())
    {
        pState->byType[found->second.type].erase(oid);
        pState->objects.erase(found);
    }
}

// Builds the object's bytes from its values. The status lives in the bytes
// alone, since it also changes without the values.
Error Rebuild(Object *pObject, uint32_t oid, uint8_t status)
{
    Error error;
    std::vector<uint8_t> bytes =
        BuildObject({.type = pObject->type, .oid = oid, .status = status},
                    pObject->values.get(), &error);
    if (error.empty())
    {
        json_object_del(pObject->values.get(), kStatusColumn);
        pObject->bytes = std::move(bytes);
    }
    return error;
}

// Replaces the given values; changes nothing when one doesn't fit.
Error ChangeValues(Object *pObject, uint32_t oid, json_t *given)
{
    const qdb::Table *table = TableFor(pObject->type, pObject->values.get());
    if (PatchObject(*table, given, &pObject->bytes))
    {
        const char *name = nullptr;
        json_t *value = nullptr;
        json_object_foreach(given, name, value)
        {
            SetMember(pObject->values.get(), name, value);
        }
        return {};
    }
    Object changed;
    changed.type = pObject->type;
    changed.values = MergedValues(pObject->values.get(), given);
    Error error = Rebuild(&changed, oid, ObjectStatus(*pObject));
    if (error.empty())
    {
        const char *key = KeyIn(pObject->type, changed.values.get(), given);
        pObject->key = key != nullptr ? key : pObject->key;
        pObject->bytes = std::move(changed.bytes);
        pObject->values = std::move(changed.values);
    }
    return error;
}

} // namespace

Json MergedValues(json_t *old, json_t *given)
{
    // Shares the members of `old`, which nobody changes.
    Json merged(old == nullptr ? json_object() : json_copy(old));
    const char *name = nullptr;
    json_t *value = nullptr;
    json_object_foreach(given, name, value)
    {
        SetMember(merged.get(), name, value);
    }
    return merged;
}

Error CreateObject(const ObjectSpec &spec, bool announce, uint32_t *pOid)
{
    Start();
    if (IsConfigType(spec.type))
    {
        return "groups and attributes aren't objects of the Data Manager";
    }
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    if (spec.oid != 0 && IsTaken(state, spec.oid))
    {
        return Print("OID 0x%X is taken", spec.oid);
    }
    uint32_t nextOid = state.nextOid;
    const uint32_t oid = spec.oid != 0 ? spec.oid : TakeOid(state, &nextOid);
    Object object;
    object.type = spec.type;
    object.parents = spec.parents;
    object.values.reset(spec.values == nullptr ? json_object()
                                               : json_deep_copy(spec.values));
    Error error = Rebuild(&object, oid, 0);
    if (!error.empty())
    {
        return error;
    }
    const char *key =
        KeyIn(spec.type, object.values.get(), object.values.get());
    object.key = !spec.key.empty() ? spec.key
                 : key != nullptr  ? std::string(key)
                                   : DefaultKey(spec.type, oid);
    Insert(&state, oid, std::move(object));
    state.nextOid = nextOid;
    if (announce)
    {
        QueueObjectList(kCreate, {&oid, 1});
    }
    if (pOid != nullptr)
    {
        *pOid = oid;
    }
    return {};
}

Error SetObject(uint32_t oid, json_t *values, bool announce)
{
    Start();
    if (!json_is_object(values))
    {
        return "the values aren't a JSON object";
    }
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    const auto found = state.objects.find(oid);
    if (found == state.objects.end())
    {
        return Unknown(oid);
    }
    Object &object = found->second;
    if (object.values == nullptr)
    {
        return Print("object 0x%X was given as bytes and has no columns", oid);
    }
    Error error = ChangeValues(&object, oid, values);
    if (!error.empty())
    {
        return error;
    }
    if (announce)
    {
        QueueObjectList(kDirtyList, {&oid, 1});
    }
    return {};
}

Error DeleteObjects(std::span<const uint32_t> oids, bool announce)
{
    Start();
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    for (const uint32_t oid : oids)
    {
        if (!state.objects.contains(oid))
        {
            return Unknown(oid);
        }
    }
    for (const uint32_t oid : oids)
    {
        Remove(&state, oid);
    }
    if (announce && !oids.empty())
    {
        QueueObjectList(kDestroy, oids);
    }
    return {};
}

Error SetStatus(uint32_t oid, uint8_t status, bool announce)
{
    Start();
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    const auto found = state.objects.find(oid);
    if (found == state.objects.end() || found->second.bytes.size() <= kStatusAt)
    {
        return Unknown(oid);
    }
    std::vector<uint8_t> &bytes = found->second.bytes;
    bytes[kStatusAt] = status;
    if (announce)
    {
        // A header, a word that nobody reads, and the object.
        const size_t head = sizeof(DataEventHeader) + sizeof(uint32_t);
        DataEventHeader header = {};
        header.evtSize = static_cast<uint32_t>(head + bytes.size());
        header.evtType = kStatusChange;
        std::vector<uint8_t> record(head);
        std::memcpy(record.data(), &header, sizeof(header));
        record.insert(record.end(), bytes.begin(), bytes.end());
        QueueRecord(record);
    }
    return {};
}

Error PutRawObject(std::span<const uint8_t> bytes,
                   std::span<const uint32_t> parents)
{
    Start();
    DataObjHeader header = {};
    std::memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof(header)));
    if (bytes.size() < offsetof(DataObjHeader, objType))
    {
        return "the bytes end before the OID does";
    }
    if (header.objID <= kRootOid)
    {
        return Print("an object can't have the OID %u", header.objID);
    }
    Object object;
    object.type = header.objType;
    object.bytes.assign(bytes.begin(), bytes.end());
    object.parents.assign(parents.begin(), parents.end());
    object.key = DefaultKey(header.objType, header.objID);
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    Remove(&state, header.objID);
    Insert(&state, header.objID, std::move(object));
    return {};
}

std::vector<uint8_t> ObjectBytes(uint32_t oid)
{
    Start();
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    const auto found = state.objects.find(oid);
    return found == state.objects.end() ? std::vector<uint8_t>()
                                        : found->second.bytes;
}

std::vector<uint32_t> ObjectIds()
{
    Start();
    return ObjectIdsOf({});
}

std::vector<uint32_t> ObjectIdsOf(const std::vector<uint16_t> &types)
{
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    std::vector<uint32_t> oids;
    for (const auto &[oid, object] : state.objects)
    {
        if (types.empty() ||
            std::ranges::find(types, object.type) != types.end())
        {
            oids.push_back(oid);
        }
    }
    return oids;
}

uint8_t ObjectStatus(const Object &object)
{
    return object.bytes.size() > kStatusAt ? object.bytes[kStatusAt]
                                           : uint8_t{0};
}

void AnnounceObjects(std::span<const uint32_t> oids)
{
    while (!oids.empty())
    {
        const auto list = oids.first(std::min(oids.size(), kLongestList));
        QueueObjectList(kCreate, list);
        oids = oids.subspan(list.size());
    }
}

void Detach()
{
    Start();
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    state.ready = false;
    DataEventHeader header = {};
    header.evtSize = sizeof(header);
    header.evtType = kDetached;
    uint8_t record[sizeof(header)];
    std::memcpy(record, &header, sizeof(header));
    QueueRecord(record);
}

void Attach()
{
    Start();
    State &state = TheState();
    const std::lock_guard lock(state.lock);
    state.ready = true;
    std::vector<uint32_t> oids;
    for (const auto &item : state.objects)
    {
        oids.push_back(item.first);
    }
    AnnounceObjects(oids);
}

} // namespace standin
