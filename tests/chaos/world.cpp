#include "tests/chaos/world.h"

#include <cstring>

namespace qdb::chaos
{
namespace
{

constexpr char kInt[] = "CfgIntAttribute";
constexpr char kStr[] = "CfgStrAttribute";
constexpr char kEnum[] = "CfgEnumAttribute";
constexpr char kPasswd[] = "CfgPasswdAttribute";

// clang-format off
constexpr Kind kKinds[] = {
    {0x91, nullptr, 0x910001, 1, 0, 0, R"("Key":"91||System.Embedded.1")", {"SysProductName", "#EnabledState"}, "", "*", kReloaded | kFixed},
    {0x5E, nullptr, 0x5E0001, 1, 0, 0, R"("Key":"Tarnu.Embedded.1#SubSystem.1#Battery")", {"SubSystemName", "SubSystemFQDD"}, "", "", kKept | kFixed},
    {0x40, nullptr, 0x400001, 4, 0, 0, R"("FQDD":"Fan{n}")", {"Key", "#VariableSpeed"}, "", "", kKept},
    {0x17, nullptr, 0x170001, 12, 0x400001, 4, R"("Key":"Speed{n}")", {"#probeReading", "FriendlyFQDD"}, "", "", kKept},
    {0x16, nullptr, 0x160001, 16, 0, 0, R"("Key":"Temp{n}")", {"#probeReading", "ProbeLocation"}, "", "", kKept},
    {0x18, nullptr, 0x180001, 8, 0x910001, 1, R"("Key":"Volt{n}")", {"#probeReading", "ProbeLocation"}, "", "", 0},
    {0x15, nullptr, 0x150001, 3, 0, 0, R"("PSLocation":"Bay{n}")", {"fwVer", "#inputVolts"}, "", "", kKept},
    {0xA03, nullptr, 0xA030001, 4, 0, 0, R"("jobInfo_DOT_Key":"Job{n}")", {"jobInfo_DOT_Message", "#jobInfo_DOT_percentComplete"}, "", "", kKept},
    {0xE1, nullptr, 0xE10001, 4, 0, 0, R"("Key":"DIMM{n}")", {"#Speed", "SerialNumber"}, "", "", kKept | kReloaded},
    {0xE1, nullptr, 0xE10101, 4, 0, 0, R"("Key":"NVDIMM{n}","TypeDetail":4224)", {"#Speed", "SerialNumber"}, "", "#RemainingRatedWriteEndurance", kKept | kReloaded},
    {0x42, nullptr, 0x420001, 2, 0, 0, R"("Key":"Board{n}")", {"SerialNumber", "ProductName"}, "", "", kReloaded},
    {0x42, nullptr, 0x420101, 4, 0, 0, R"("Key":"Disk.Bay.{n}")", {"PartNumber", "ProductName"}, "", "SerialNumber", kReloaded},
    {0x36, nullptr, 0x360001, 1, 0x910001, 1, R"("Key":"Power{n}")", {"#powerControl", "#powerControl"}, "", "#powerState", kMade},
    {0xEB, nullptr, 0xEB0001, 1, 0, 0, R"("key":"Bezel{n}")", {"fwVersion", "productName"}, "", "*", kMade | kReloaded},
    {0xEC, nullptr, 0xEC0001, 1, 0x910001, 1, R"("key":"Stick{n}")", {"serialNumber", "#presence"}, "", "*", kMade | kReloaded},
    {0x1001, nullptr, 0x10010001, 5, 0, 0, R"("key":"Populator{n}")", {"popName", "popName"}, "", "#popStatus", kCounted},
    {0x1B, nullptr, 0x1B0001, 3, 0x5E0001, 1, R"("FriendlyFQDD":"Cell{n}")", {"#probeReading", "ProbeLocation"}, "", "Key", kKept | kCounted},
    {0x220, nullptr, 0x2200001, 3, 0x910001, 1, R"("Key":"GPU{n}")", {"MarketingName", "#GpuTargetTemp"}, "", "", kKept | kCounted},
    {0x900, nullptr, 0x9000001, 2, 0, 0, R"("rootBody_DOT_Key":"Root{n}")", {"#rootBody_DOT_popID", "#rootBody_DOT_popID"}, "", "", kRestored},
    {0x5D, nullptr, 0x5D0001, 3, 0, 0, R"("Key":"Health{n}")", {"HealthStatusArray", "HealthStatusArray"}, "HealthStatusArray", "", kKept},
    {0x41, nullptr, 0x410001, 3, 0x400001, 4, R"("Key":"History{n}")", {"#peakTempDay", "tempDataLastDay"}, "tempDataLastDay:avgValue", "", 0},
    {0x801, nullptr, 0x8010001, 4, 0, 0, R"("DOH_ObjStatus":{n})", {"ObjTypeList", "ObjTypeList"}, "ObjTypeList", "", 0},
    {0x1200, nullptr, 0x12000001, 4, 0, 0, R"("ifName":"eth{n}")", {"IpV6Address", "#ifStatus"}, "IpV6Address:prefixLen", "", 0},
    {0x45, nullptr, 0x450001, 3, 0, 0, R"("Key":"Slot{n}")", {"slotNumStr", "#slotNum"}, "", "", 0},
    {0x45, nullptr, 0x450101, 3, 0, 0, R"("emptySlotObj_DOT_Key":"Raid{n}","emptySlotObj_DOT_slotType":7)", {"fqdd", "emptySlotObj_DOT_slotNumStr"}, "", "", 0},
    {0x31B, nullptr, 0x31B0001, 3, 0, 0, R"("key":"Smart{n}","protocol":64,"attributes":2)", {"friendlyFQDD", "fqdd"}, "", "", 0},
    {0xC003, nullptr, 0xC0030001, 6, 0x5E0001, 1, R"("key":"Port{n}")", {"uniqueKey", "FQDD"}, "", "", 0},
    {0x4051, kInt, 0x40510001, 6, 0, 0, "Tarnu.Embedded.1#Chaos.1#Int{n}", {"#currentValue", "DisplayName"}, "", "", kRestored},
    {0x4052, kStr, 0x40520001, 4, 0, 0, "Tarnu.Embedded.1#Chaos.1#Str{n}", {"CurrentValue", "DisplayName"}, "", "", kRestored},
    {0x4052, kStr, 0x40520101, 3, 0, 0, "Tarnu.Embedded.1#Chaos.2#AppRawData{n}", {"CurrentValue", "DisplayName"}, "", "", kRestored | kRaw},
    {0x4053, kEnum, 0x40530001, 4, 0, 0, "Tarnu.Embedded.1#Chaos.10#Enum{n}", {"CurrentValue", "DisplayName"}, "", "", kRestored},
    {0x4054, kPasswd, 0x40540001, 4, 0, 0, "Tarnu.Embedded.1#Chaos.1#Passwd{n}", {"CurrentValue", "DisplayName"}, "", "", kRestored},
    {0x4051, kInt, 0x40510201, 1, 0, 0, "Tarnu.Embedded.1#SerialCapture.1#SerialDataSize", {"#currentValue", "DisplayName"}, "", "*", kRestored | kMade},
    {0x4051, kInt, 0x40510301, 1, 0, 0, "System.Embedded.1#ServerOS.1#ServerPoweredOnTime", {"#currentValue", "DisplayName"}, "", "*", kRestored | kMade},
    {0x4052, kStr, 0x40520201, 1, 0, 0, "System.Embedded.1#Diagnostics.1#OSAppCollectionTime", {"CurrentValue", "DisplayName"}, "", "*", kRestored | kMade},
    {0x4052, kStr, 0x40520301, 1, 0, 0, "System.Embedded.1#SystemInfo.1#BootTime", {"CurrentValue", "DisplayName"}, "", "*", kRestored | kMade},
    {0x4052, kStr, 0x40520401, 1, 0, 0, "System.Embedded.1#SystemInfo.1#SysTime", {"CurrentValue", "DisplayName"}, "", "*", kRestored | kMade},
};
// clang-format on

std::string Numbered(std::string text, uint32_t number)
{
    const size_t at = text.find("{n}");
    return at == std::string::npos
               ? text
               : text.replace(at, 3, std::to_string(number));
}

} // namespace

std::string NameOf(const char *column)
{
    return *column == '#' ? column + 1 : column;
}

std::string Slot::Command(const char *forObject, const char *forAttribute) const
{
    const std::string id = R"(","oid":)" + std::to_string(oid);
    return !IsAttribute() ? R"({"op":")" + std::string(forObject) + id
                          : R"({"op":")" + std::string(forAttribute) +
                                R"(","interface":")" + kind->interface +
                                R"(","key":")" + key + id;
}

uint32_t Slot::Parent() const
{
    const uint32_t number = oid - kind->first;
    return kind->parentCount == 0 ? 0
                                  : kind->parent + number % kind->parentCount;
}

bool Slot::Watches(const std::string &column) const
{
    const std::string watched = NameOf(kind->watched);
    return watched == "*" || (!watched.empty() && watched == column);
}

World::World()
{
    for (const Kind &kind : kKinds)
    {
        for (uint32_t i = 0; i < kind.count; ++i)
        {
            const bool isAttribute = kind.interface != nullptr;
            slots.push_back({&kind, kind.first + i,
                             isAttribute ? Numbered(kind.values, i + 1) : ""});
        }
    }
}

std::string World::Fresh(const char *column)
{
    // Numbers fit in a signed byte, and are never the 10 that a run begins
    // with.
    const std::string mark = std::to_string(++mark_);
    return '"' + NameOf(column) + "\":" +
           (*column == '#' ? std::to_string(11 + mark_ % 100)
                           : "\"v" + mark + '"');
}

std::string World::FreshArray(const Slot &slot, size_t length)
{
    const std::string array = slot.kind->array;
    const size_t colon = array.find(':');
    std::string list;
    for (size_t i = 0; i < length; ++i)
    {
        const std::string number = std::to_string(++mark_ % 100);
        list += list.empty() ? "" : ",";
        list += colon == std::string::npos
                    ? number
                    : "{\"" + array.substr(colon + 1) + "\":" + number + '}';
    }
    return '"' + array.substr(0, colon) + "\":[" + list + ']';
}

std::string World::Values(const Slot &slot)
{
    const Kind &kind = *slot.kind;
    std::string values = slot.IsAttribute()
                             ? R"("Name":"chaos")"
                             : Numbered(kind.values, slot.oid - kind.first + 1);
    for (const char *column : kind.columns)
    {
        if (std::strncmp(column, kind.array, std::strlen(column)) != 0)
        {
            values += "," + Fresh(column);
        }
    }
    if (*kind.array != '\0')
    {
        values += "," + FreshArray(slot, kFirstLength);
    }
    if (*kind.watched != '\0' && *kind.watched != '*')
    {
        // What a pass sees first it never takes for a change again.
        values += "," + (begun_ || *kind.watched != '#'
                             ? Fresh(kind.watched)
                             : '"' + NameOf(kind.watched) + "\":10");
    }
    return "{" + values + "}";
}

std::string World::Creation(const Slot &slot)
{
    const uint32_t parent = slot.Parent() == 0 ? 1 : slot.Parent();
    return slot.Command("create", "attribute") + R"(,"type":)" +
           std::to_string(slot.kind->type) + R"(,"parents":[)" +
           std::to_string(parent) + R"(],"values":)" + Values(slot) + "}";
}

std::string World::Scenario()
{
    std::string objects;
    std::string attributes;
    for (const Slot &slot : slots)
    {
        std::string &list = slot.IsAttribute() ? attributes : objects;
        list += (list.empty() ? "" : ",") + Creation(slot);
    }
    begun_ = true;
    return R"({"objects":[)" + objects + R"(],"attributes":[)" + attributes +
           "]}";
}

} // namespace qdb::chaos
