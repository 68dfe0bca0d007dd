// The Data Manager's objects.
//
// An object and its event change together under the state's lock, so that
// events stand in the queue in the order of the changes.
#include "standin/store.h"

#include "platform/zoil.h"
#include "standin/events.h"
#include "standin/layout.h"
#include "standin/object_builder.h"

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

constexpr char kNoValues[] = "the values aren't a JSON object";

std::string DefaultKey(uint16_t type, uint32_t oid)
{
    return Print("%X||Object.%u", type, oid);
}

// A copy of `old` in which the members of `given` are replaced. Those that were
// given stand last: of two fields that share bytes the one given last holds.
// Both may be NULL.
Json MergedValues(json_t *old, json_t *given)
{
    // Shares the members of `old`, which nobody changes.
    Json merged(old == nullptr ? json_object() : json_copy(old));
    const char *name = nullptr;
    json_t *value = nullptr;
    json_object_foreach(given, name, value)
    {
        json_object_del(merged.get(), name);
        json_object_set_new(merged.get(), name, json_deep_copy(value));
    }
    return merged;
}

// A null takes a value away; only the builder needs to see that it was one of a
// column.
void DropNulls(json_t *values)
{
    const char *name = nullptr;
    json_t *value = nullptr;
    void *next = nullptr;
    json_object_foreach_safe(values, next, name, value)
    {
        if (json_is_null(value))
        {
            json_object_del(values, name);
        }
    }
}

Error Unknown(uint32_t oid)
{
    return Print("there is no object 0x%X", oid);
}

void Insert(State *pState, Object object)
{
    const uint32_t oid = object.oid;
    pState->byType[object.type].insert(oid);
    pState->objects.insert_or_assign(oid, std::move(object));
}

void Remove(State *pState, uint32_t oid)
{
    if (const Object *object = pState->Find(oid))
    {
        pState->byType[object->type].erase(oid);
        pState->objects.erase(oid);
    }
}

// The key that `given`, all or some of an object's values, tells; NULL when it
// doesn't.
const char *KeyIn(uint16_t type, json_t *values, const json_t *given)
{
    const qdb::Column *column = KeyColumn(*TableFor(type, values));
    return column == nullptr
               ? nullptr
               : json_string_value(json_object_get(given, column->name));
}

} // namespace

Error ChangeValues(Object *pObject, json_t *given)
{
    Json values = MergedValues(pObject->values.get(), given);
    Error error;
    std::vector<uint8_t> bytes = BuildObject({.type = pObject->type,
                                              .oid = pObject->oid,
                                              .status = ObjectStatus(*pObject)},
                                             values.get(), &error);
    if (!error.empty())
    {
        return error;
    }
    if (!IsConfigType(pObject->type))
    {
        const char *key = KeyIn(pObject->type, values.get(), given);
        pObject->key = key == nullptr ? pObject->key : key;
        // Lives in the bytes alone, since it also changes without the values.
        json_object_del(values.get(), kStatusColumn);
    }
    DropNulls(values.get());
    pObject->bytes = std::move(bytes);
    pObject->values = std::move(values);
    return {};
}

Error CreateObject(const ObjectSpec &spec, bool announce, uint32_t *pOid)
{
    const LockedState state;
    if (IsConfigType(spec.type))
    {
        return "groups and attributes aren't objects of the Data Manager";
    }
    if (spec.oid != 0 && IsTaken(*state, spec.oid))
    {
        return Print("OID 0x%X is taken", spec.oid);
    }
    if (spec.values != nullptr && !json_is_object(spec.values))
    {
        return kNoValues;
    }
    uint32_t nextOid = state->nextOid;
    Object object;
    object.type = spec.type;
    object.oid = spec.oid != 0 ? spec.oid : TakeOid(*state, &nextOid);
    object.parents = spec.parents;
    object.key = DefaultKey(object.type, object.oid);
    Error error = ChangeValues(&object, spec.values);
    if (!error.empty())
    {
        return error;
    }
    object.key = spec.key.empty() ? object.key : spec.key;
    const uint32_t oid = object.oid;
    Insert(&*state, std::move(object));
    state->nextOid = nextOid;
    if (announce)
    {
        SendObjectList(kCreate, {&oid, 1});
    }
    if (pOid != nullptr)
    {
        *pOid = oid;
    }
    return {};
}

Error SetObject(uint32_t oid, json_t *values, bool announce)
{
    if (!json_is_object(values))
    {
        return kNoValues;
    }
    const LockedState state;
    Object *object = state->Find(oid);
    if (object == nullptr)
    {
        return Unknown(oid);
    }
    if (object->values == nullptr)
    {
        return Print("object 0x%X was given as bytes and has no columns", oid);
    }
    Error error = ChangeValues(object, values);
    if (error.empty() && announce)
    {
        SendObjectList(kDirtyList, {&oid, 1});
    }
    return error;
}

Error DeleteObjects(std::span<const uint32_t> oids, bool announce)
{
    const LockedState state;
    for (const uint32_t oid : oids)
    {
        if (state->Find(oid) == nullptr)
        {
            return Unknown(oid);
        }
    }
    for (const uint32_t oid : oids)
    {
        Remove(&*state, oid);
    }
    if (announce && !oids.empty())
    {
        SendObjectList(kDestroy, oids);
    }
    return {};
}

Error SetStatus(uint32_t oid, uint8_t status, bool announce)
{
    const LockedState state;
    Object *object = state->Find(oid);
    if (object == nullptr || object->bytes.size() <= kStatusAt)
    {
        return Unknown(oid);
    }
    std::vector<uint8_t> &bytes = object->bytes;
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
        SendRecord(record);
    }
    return {};
}

Error PutRawObject(std::span<const uint8_t> bytes,
                   std::span<const uint32_t> parents)
{
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
    object.oid = header.objID;
    object.key = DefaultKey(object.type, object.oid);
    object.parents.assign(parents.begin(), parents.end());
    object.bytes.assign(bytes.begin(), bytes.end());
    const LockedState state;
    Remove(&*state, object.oid);
    Insert(&*state, std::move(object));
    return {};
}

std::vector<uint8_t> ObjectBytes(uint32_t oid)
{
    const LockedState state;
    const Object *object = state->Find(oid);
    return object == nullptr ? std::vector<uint8_t>() : object->bytes;
}

std::vector<uint32_t> ObjectIds()
{
    return ObjectIdsOf({});
}

std::vector<uint32_t> ObjectIdsOf(std::span<const uint16_t> types)
{
    const LockedState state;
    std::vector<uint32_t> oids;
    for (const auto &[oid, object] : state->objects)
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
        SendObjectList(kCreate, list);
        oids = oids.subspan(list.size());
    }
}

void Detach()
{
    const LockedState state;
    state->ready = false;
    DataEventHeader header = {};
    header.evtSize = sizeof(header);
    header.evtType = kDetached;
    uint8_t record[sizeof(header)];
    std::memcpy(record, &header, sizeof(header));
    SendRecord(record);
}

void Attach()
{
    const LockedState state;
    state->ready = true;
    std::vector<uint32_t> oids;
    for (const auto &item : state->objects)
    {
        oids.push_back(item.first);
    }
    AnnounceObjects(oids);
}

} // namespace standin
