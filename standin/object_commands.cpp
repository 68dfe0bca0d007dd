// The commands about the Data Manager's objects.
#include "standin/object_commands.h"

#include "standin/state.h"
#include "standin/store.h"

#include <algorithm>
#include <iterator>

namespace standin
{
namespace
{

bool Announce(const Request &request)
{
    return !json_is_false(request.Get("announce"));
}

// A parent is an OID, or an object by its key: {"key": ...}.
uint32_t ParentOf(const json_t *parent)
{
    const char *key = json_string_value(json_object_get(parent, "key"));
    if (key == nullptr)
    {
        return Request::NumberOf<uint32_t>(parent, "parents");
    }
    const LockedState state;
    const Object *object = state->FindKey(key);
    if (object == nullptr)
    {
        Refuse("no object has the key \"%s\"", key);
    }
    return object->oid;
}

std::vector<uint32_t> Parents(const Request &request)
{
    std::vector<uint32_t> oids;
    std::ranges::transform(request.Elements("parents"),
                           std::back_inserter(oids), ParentOf);
    return oids;
}

// With the status and the values where these are to be told.
json_t *Description(const Object &object, json_t *status, json_t *values)
{
    return json_pack("{s:I,s:i,s:o*,s:s,s:o,s:o*,s:s}", "oid",
                     json_int_t{object.oid}, "type", int{object.type}, "status",
                     status, "key", object.key.c_str(), "parents",
                     NumberArray(object.parents), "values", values, "hex",
                     ToHex(object.bytes).c_str());
}

} // namespace

void Create(const Request &request, json_t *reply)
{
    ObjectSpec spec;
    spec.type = request.Number<uint16_t>("type");
    spec.oid = request.Number<uint32_t>("oid", 0);
    spec.parents = Parents(request);
    spec.values = request.Get("values");
    spec.key = request.Text("key", "");
    uint32_t oid = 0;
    Check(CreateObject(spec, Announce(request), &oid));
    SetNumber(reply, "oid", oid);
}

void Set(const Request &request, json_t *)
{
    Check(SetObject(request.Number<uint32_t>("oid"), request.Get("values"),
                    Announce(request)));
}

void Delete(const Request &request, json_t *)
{
    Check(DeleteObjects(request.Numbers<uint32_t>("oids"), Announce(request)));
}

void Status(const Request &request, json_t *)
{
    Check(SetStatus(request.Number<uint32_t>("oid"),
                    request.Number<uint8_t>("status")));
}

void RawObject(const Request &request, json_t *)
{
    Check(PutRawObject(FromHex(request.Text("hex")), Parents(request)));
}

void List(const Request &request, json_t *reply)
{
    const bool isForAll = !request.Has("type");
    const auto type = request.Number<uint16_t>("type", 0);
    json_t *objects = AddArray(reply, "objects");
    const LockedState state;
    for (const auto &[oid, object] : state->objects)
    {
        if (isForAll || object.type == type)
        {
            json_array_append_new(objects, json_pack("{s:I,s:i,s:s}", "oid",
                                                     json_int_t{oid}, "type",
                                                     int{object.type}, "key",
                                                     object.key.c_str()));
        }
    }
}

void Show(const Request &request, json_t *reply)
{
    const auto oid = request.Number<uint32_t>("oid");
    const LockedState state;
    const Object *object = state->Find(oid);
    if (object == nullptr)
    {
        Refuse("there is no object 0x%X", oid);
    }
    json_object_update_new(
        reply, Description(*object, json_integer(ObjectStatus(*object)),
                           json_deep_copy(object->values.get())));
}

void Dump(const Request &, json_t *reply)
{
    json_t *objects = AddArray(reply, "objects");
    const LockedState state;
    for (const auto &[oid, object] : state->objects)
    {
        if (state->ready)
        {
            json_array_append_new(objects,
                                  Description(object, nullptr, nullptr));
        }
    }
    for (const auto &[key, attribute] : state->attributes)
    {
        json_t *dump = Description(attribute, nullptr, nullptr);
        const std::string group = key.substr(0, key.find_last_of('#'));
        json_object_set_new(dump, "group", json_string(group.c_str()));
        json_array_append_new(objects, dump);
    }
}

} // namespace standin
