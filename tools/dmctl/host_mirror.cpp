#include "tools/dmctl/host_mirror.h"

namespace qdb
{

namespace
{

Json DeleteOperation(uint32_t oid)
{
    return Json(
        json_pack("{s:s,s:[I]}", "op", "delete", "oids", json_int_t{oid}));
}

// The members of `after` that `before` lacks or has with another value, and
// null for those that `after` lacks.
Json ChangedMembers(json_t *before, json_t *after)
{
    Json changed(json_object());
    const char *name;
    json_t *value;
    json_object_foreach(after, name, value)
    {
        if (json_equal(json_object_get(before, name), value) == 0)
        {
            Put(changed, name, Share(value));
        }
    }
    json_object_foreach(before, name, value)
    {
        if (json_object_get(after, name) == nullptr)
        {
            Put(changed, name, Json(json_null()));
        }
    }
    return changed;
}

// What brings an object to the given state: NULL when nothing has to change.
Json UpdateOperation(const HostObject &object, json_t *before)
{
    if (before == nullptr)
    {
        return Json(json_pack("{s:s,s:i,s:I,s:s,s:[I],s:O}", "op", "create",
                              "type", int{object.type}, "oid",
                              json_int_t{object.oid}, "key", object.key.c_str(),
                              "parents", json_int_t{object.parent}, "values",
                              object.values.get()));
    }
    Json changed = ChangedMembers(before, object.values.get());
    return json_object_size(changed.get()) == 0
               ? nullptr
               : Json(json_pack("{s:s,s:I,s:o}", "op", "set", "oid",
                                json_int_t{object.oid}, "values",
                                changed.release()));
}

} // namespace

HostMirror::HostMirror(Client &client) : mClient(client)
{
    const Json list = client.Call(Operation("list"));
    size_t index;
    json_t *object;
    json_array_foreach(json_object_get(list.get(), "objects"), index, object)
    {
        const auto oid = static_cast<uint32_t>(NumberOf(object, "oid"));
        if (oid >= kFirstHostOid && oid < kBehindHostOids)
        {
            client.Call(DeleteOperation(oid));
        }
    }
}

std::vector<std::string>
HostMirror::Update(const std::vector<HostObject> &objects)
{
    const Json operations(json_array());
    std::vector<uint32_t> targets; // of the operations, one by one
    const auto add = [&](uint32_t oid, Json operation)
    {
        if (operation != nullptr)
        {
            Append(operations, std::move(operation));
            targets.push_back(oid);
        }
    };
    std::map<uint32_t, Json> current;
    for (const HostObject &object : objects)
    {
        const auto known = mKnown.find(object.oid);
        add(object.oid, UpdateOperation(object, known == mKnown.end()
                                                    ? nullptr
                                                    : known->second.get()));
        current[object.oid] = Share(object.values.get());
    }
    for (const auto &[oid, values] : mKnown)
    {
        if (!current.contains(oid))
        {
            add(oid, DeleteOperation(oid));
        }
    }
    mKnown = std::move(current);

    std::vector<std::string> refusals;
    const Json replies = mClient.CallBatch(operations);
    size_t index;
    json_t *reply;
    json_array_foreach(replies.get(), index, reply)
    {
        if (!Succeeded(reply))
        {
            refusals.push_back(ErrorOf(reply));
            mKnown.erase(targets[index]);
        }
    }
    return refusals;
}

} // namespace qdb
