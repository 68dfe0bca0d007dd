#include "bench/workload.h"

#include "objects/catalogue.h"
#include "standin/events.h"
#include "standin/generator.h"
#include "standin/layout.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>

namespace qdb::bench
{
namespace
{

constexpr uint16_t kParentType = 0x91; // the system
constexpr uint16_t kProbeType = 0x1B;
constexpr uint16_t kMeasuredType = 0xE6; // PCI devices

// Sensors, supplies, storage, network, settings and inventory: narrow and wide
// tables, two with SELECT * readers and one with previous values. None is read
// again by the NC thread, and none has an array property.
constexpr uint16_t kTwentyTypes[] = {
    0x15, 0x16, 0x17,  0x18, 0x19,  0x28,  0x303, 0x305, 0x309, 0x30A,
    0x40, 0x44, 0x713, 0x58, 0x701, 0x704, 0x711, 0x712, 0xD3,  0xE6,
};

// Of these the population has one object. The NC thread takes any further one
// of the last two for a replacement of the first, at every pass.
constexpr uint16_t kSingletons[] = {kParentType, 0x36, 0xEB, 0xEC};

constexpr Parent kSystem = {0x1000, "91||System.Embedded.1"};

// The service wants all probes of one type below the battery: it makes them
// anew at every pass of the NC thread otherwise.
constexpr uint16_t kBatteryType = 0x5E;
constexpr Parent kBattery = {0x1001, "Tarnu.Embedded.1#SubSystem.1#Battery"};

// Sets don't meet up to a million objects.
constexpr uint32_t kFirstOid[] = {0x100000, 0x200000, 0x300000};

bool IsSingleton(uint32_t objType)
{
    return std::ranges::find(kSingletons, objType) != std::end(kSingletons);
}

std::vector<uint16_t> TypesOf(Set set)
{
    switch (set)
    {
    case Set::OneType:
        return {kMeasuredType};
    case Set::TwentyTypes:
        return {std::begin(kTwentyTypes), std::end(kTwentyTypes)};
    case Set::Population:
        break;
    }
    std::vector<uint16_t> types;
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        const auto type = static_cast<uint16_t>(row.objType);
        const bool isSecondRow = !types.empty() && types.back() == type;
        if (!isSecondRow && !IsConfigType(type) && !IsSingleton(type))
        {
            types.push_back(type);
        }
    }
    return types;
}

uint32_t FirstOid(Set set)
{
    return kFirstOid[static_cast<size_t>(set)];
}

void PutObject(const Json &operations, uint16_t type, uint32_t oid,
               bool isFirst, const char *key = nullptr)
{
    const Parent *parent = ParentOf(type, oid);
    Append(operations,
           Json(json_pack(
               "{s:s, s:b, s:i, s:I, s:o, s:s*, s:o*}", "op", "create",
               "announce", 0, "type", int{type}, "oid", json_int_t{oid},
               "values", standin::GenerateValues(type, oid, isFirst).release(),
               "key", key, "parents",
               parent == nullptr ? nullptr
                                 : json_pack("[I]", json_int_t{parent->oid}))));
}

// Types in turn; objects of a type with two tables take turns between them.
void PutSet(const Json &operations, Set set, uint32_t first, uint32_t end)
{
    const std::vector<uint16_t> types = TypesOf(set);
    for (uint32_t i = first; i < end; ++i)
    {
        PutObject(operations, types[i % types.size()], FirstOid(set) + i,
                  i / types.size() % 2 == 0);
    }
}

constexpr uint32_t kSpecialObjects =
    1 + static_cast<uint32_t>(std::size(kSingletons));

void PutPopulation(const Json &operations, uint32_t count)
{
    PutObject(operations, kParentType, kSystem.oid, true, kSystem.key);
    PutObject(operations, kBatteryType, kBattery.oid, true, kBattery.key);
    uint32_t oid = kBattery.oid;
    for (const uint16_t type : kSingletons)
    {
        if (type != kParentType)
        {
            PutObject(operations, type, ++oid, true);
        }
    }
    PutSet(operations, Set::Population, kSpecialObjects, count);
}

// A whole number of its own that has room for a step's value.
const char *ChangedColumn(const Table &table)
{
    const auto found =
        std::ranges::find_if(table.columns,
                             [&](const Column &column)
                             {
                                 return column.source.form != Form::Bits &&
                                        RangeOf(column.source).bits >= 16 &&
                                        standin::IsFree(table, column);
                             });
    if (found == table.columns.end())
    {
        throw std::runtime_error(std::string(table.name) +
                                 " has no column to change");
    }
    return found->name;
}

// By the place in the set.
void ChangeObjects(const Json &operations, const Step &step)
{
    const std::vector<uint16_t> types = TypesOf(step.set);
    for (uint32_t i = step.first; i < step.first + step.count; ++i)
    {
        const Table &table = *FindRow(types[i % types.size()])->table;
        Append(operations,
               Json(json_pack("{s:s, s:b, s:I, s:{s:I}}", "op", "set",
                              "announce", 0, "oid",
                              json_int_t{FirstOid(step.set) + i}, "values",
                              ChangedColumn(table), json_int_t{step.value})));
    }
}

json_t *OidArray(const Step &step)
{
    json_t *oids = json_array();
    for (const uint32_t oid : OidsOf(step))
    {
        json_array_append_new(oids, json_integer(oid));
    }
    return oids;
}

int EventOf(Action action)
{
    switch (action)
    {
    case Action::Populate:
    case Action::Create:
        return standin::kCreate;
    case Action::RefreshChanged:
    case Action::RefreshSame:
        return standin::kDirtyList;
    case Action::Delete:
    case Action::DestroyBunch:
        break;
    }
    return standin::kDestroy;
}

} // namespace

const Parent *ParentOf(uint16_t type, uint32_t oid)
{
    return oid == kSystem.oid   ? nullptr
           : type == kProbeType ? &kBattery
                                : &kSystem;
}

Measured OneType()
{
    const Table &table = *FindRow(kMeasuredType)->table;
    return {table.name, ChangedColumn(table)};
}

std::vector<uint32_t> OidsOf(const Step &step)
{
    std::vector<uint32_t> oids;
    for (uint32_t i = step.first; i < step.first + step.count; ++i)
    {
        const bool isSpecial =
            step.set == Set::Population && i < kSpecialObjects;
        oids.push_back((isSpecial ? kSystem.oid : FirstOid(step.set)) + i);
    }
    return oids;
}

Json OperationsFor(const Step &step)
{
    Json operations(json_array());
    switch (step.action)
    {
    case Action::Populate:
        PutPopulation(operations, step.count);
        break;
    case Action::Create:
        PutSet(operations, step.set, step.first, step.first + step.count);
        break;
    case Action::RefreshChanged:
        ChangeObjects(operations, step);
        break;
    case Action::RefreshSame:
        break;
    case Action::Delete:
    case Action::DestroyBunch:
        Append(operations,
               Json(json_pack("{s:s, s:b, s:o}", "op", "delete", "announce", 0,
                              "oids", OidArray(step))));
        break;
    }
    return operations;
}

json_t *AnnouncementOf(const Step &step, int perSecond)
{
    return json_pack("{s:s, s:i, s:o, s:b, s:i}", "op", "announce", "event",
                     EventOf(step.action), "oids", OidArray(step), "together",
                     step.action == Action::DestroyBunch, "rate", perSecond);
}

} // namespace qdb::bench
