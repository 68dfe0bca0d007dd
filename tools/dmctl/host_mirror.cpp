#include "tools/dmctl/host_mirror.h"

namespace qdb
{

namespace
{

Json CreateOperation(const HostObject &object)
{
    Json operation = Operation("create");
    Json parents(json_array());
    Append(parents, Number(object.parent));
    Put(operation, "type", Number(object.type));
    Put(operation, "oid", Number(object.oid));
    Put(operation, "key", Text(object.key));
    Put(operation, "parents", std::move(parents));
    Put(operation, "values", Share(object.values.get()));
    return operation;
}

Json SetOperation(uint32_t oid, Json values)
{
    Json operation = Operation("set");
    Put(operation, "oid", Number(oid));
    Put(operation, "values", std::move(values));
    return operation;
}

Json DeleteOperation(uint32_t oid)
{
    Json operation = Operation("delete");
    Json oids(json_array());
    Append(oids, Number(oid));
    Put(operation, "oids", std::move(oids));
    return operation;
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
    std::map<uint32_t, Json> current;
    for (const HostObject &object : objects)
    {
        const auto known = mKnown.find(object.oid);
        if (known == mKnown.end())
        {
            Append(operations, CreateOperation(object));
            targets.push_back(object.oid);
        }
        else if (Json changed =
                     ChangedMembers(known->second.get(), object.values.get());
                 json_object_size(changed.get()) != 0)
        {
            Append(operations, SetOperation(object.oid, std::move(changed)));
            targets.push_back(object.oid);
        }
        current[object.oid] = Share(object.values.get());
    }
    for (const auto &[oid, values] : mKnown)
    {
        if (!current.contains(oid))
        {
            Append(operations, DeleteOperation(oid));
            targets.push_back(oid);
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

Json ChangedMembers(json_t *before, json_t *after)
{
    Json changed(json_object());
    const char *name;
    json_t *value;
    json_object_foreach(after, name, value)
    {
        const json_t *old = json_object_get(before, name);
        if (old == nullptr || json_equal(old, value) == 0)
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

} // namespace qdb
