// The kinds of objects and attributes that a chaos run plays with, a line each.
//
// What passes of the service work on by themselves is said here by hand, so
// that the service's own tables aren't asked whether they are right.
#pragma once

#include <cstdint>

namespace qdb::chaos
{

enum Trait : unsigned
{
    kPassed = 1 << 0,   // passes make its rows, or write them anew
    kReloaded = 1 << 1, // a status change starts that at once, and no more
    kRaw = 1 << 2,      // gets raw data, too
    kFixed = 1 << 3,    // stays until the end: others hang on it

    // Of a slot at a moment.
    kAlive = 1 << 16,
    kAbsent = 1 << 17,
    kObject = 1 << 18,
    kAttribute = 1 << 19,
    kRemovable = 1 << 20, // there, and not fixed
    kWatched = 1 << 21,   // there, and passes compare a column
};

struct Kind
{
    uint16_t type;
    const char *interface; // of an attribute; NULL: an object
    uint32_t first;        // OIDs are first, first + 1, ...
    uint32_t count;
    uint32_t parent;        // the first of `parentCount` OIDs
    uint32_t parentCount;   // 0: the root
    const char *values;     // that never change; {n} is the slot's number
    const char *columns[2]; // that change; '#' marks a number
    const char *array;      // of numbers, or of one field behind a ':'
    const char *watched;    // column that passes compare; "*": all
    unsigned traits;
};

inline constexpr char kInt[] = "CfgIntAttribute";
inline constexpr char kStr[] = "CfgStrAttribute";
inline constexpr char kEnum[] = "CfgEnumAttribute";
inline constexpr char kPasswd[] = "CfgPasswdAttribute";

// clang-format off
inline constexpr Kind kKinds[] = {
    {0x91, nullptr, 0x910001, 1, 0, 0, R"("Key":"91||System.Embedded.1")", {"SysProductName", "#EnabledState"}, "", "*", kPassed | kReloaded | kFixed},
    {0x5E, nullptr, 0x5E0001, 1, 0, 0, R"("Key":"Tarnu.Embedded.1#SubSystem.1#Battery")", {"SubSystemName", "SubSystemFQDD"}, "", "", kFixed},
    {0x40, nullptr, 0x400001, 4, 0, 0, R"("Key":"Fan{n}")", {"FQDD", "#VariableSpeed"}, "", "", 0},
    {0x17, nullptr, 0x170001, 12, 0x400001, 4, R"("Key":"Speed{n}")", {"#probeReading", "FriendlyFQDD"}, "", "", 0},
    {0x16, nullptr, 0x160001, 16, 0, 0, R"("Key":"Temp{n}")", {"#probeReading", "ProbeLocation"}, "", "", 0},
    {0x18, nullptr, 0x180001, 8, 0x910001, 1, R"("Key":"Volt{n}")", {"#probeReading", "ProbeLocation"}, "", "", 0},
    {0xA03, nullptr, 0xA030001, 4, 0, 0, R"("jobInfo_DOT_Key":"Job{n}")", {"jobInfo_DOT_Message", "#jobInfo_DOT_percentComplete"}, "", "", 0},
    {0xE1, nullptr, 0xE10001, 4, 0, 0, R"("Key":"DIMM{n}")", {"#Speed", "SerialNumber"}, "", "", kPassed | kReloaded},
    {0xE1, nullptr, 0xE10101, 4, 0, 0, R"("Key":"NVDIMM{n}","TypeDetail":4224)", {"#Speed", "SerialNumber"}, "", "#RemainingRatedWriteEndurance", kPassed | kReloaded},
    {0x42, nullptr, 0x420001, 2, 0, 0, R"("Key":"Board{n}")", {"SerialNumber", "ProductName"}, "", "", kPassed | kReloaded},
    {0x42, nullptr, 0x420101, 4, 0, 0, R"("Key":"Disk.Bay.{n}")", {"PartNumber", "ProductName"}, "", "SerialNumber", kPassed | kReloaded},
    {0x36, nullptr, 0x360001, 1, 0x910001, 1, R"("Key":"Power{n}")", {"#powerControl", "#powerControl"}, "", "#powerState", kPassed},
    {0xEB, nullptr, 0xEB0001, 1, 0, 0, R"("key":"Bezel{n}")", {"fwVersion", "productName"}, "", "*", kPassed | kReloaded},
    {0xEC, nullptr, 0xEC0001, 1, 0x910001, 1, R"("key":"Stick{n}")", {"serialNumber", "#presence"}, "", "*", kPassed | kReloaded},
    {0x1001, nullptr, 0x10010001, 5, 0, 0, R"("key":"Populator{n}")", {"popName", "popName"}, "", "#popStatus", kPassed},
    {0x1B, nullptr, 0x1B0001, 3, 0x5E0001, 1, R"("FriendlyFQDD":"Cell{n}")", {"#probeReading", "ProbeLocation"}, "", "Key", kPassed},
    {0x220, nullptr, 0x2200001, 3, 0x910001, 1, R"("Key":"GPU{n}")", {"MarketingName", "#GpuTargetTemp"}, "", "", kPassed},
    {0x900, nullptr, 0x9000001, 2, 0, 0, R"("rootBody_DOT_Key":"Root{n}")", {"#rootBody_DOT_popID", "#rootBody_DOT_popID"}, "", "", 0},
    {0x5D, nullptr, 0x5D0001, 3, 0, 0, R"("Key":"Health{n}")", {"HealthStatusArray", "HealthStatusArray"}, "HealthStatusArray", "", 0},
    {0x41, nullptr, 0x410001, 3, 0x400001, 4, R"("Key":"History{n}")", {"#peakTempDay", "tempDataLastDay"}, "tempDataLastDay:avgValue", "", 0},
    {0x801, nullptr, 0x8010001, 4, 0, 0, R"("DOH_ObjStatus":{n})", {"ObjTypeList", "ObjTypeList"}, "ObjTypeList", "", 0},
    {0x1200, nullptr, 0x12000001, 4, 0, 0, R"("ifName":"eth{n}")", {"IpV6Address", "#ifStatus"}, "IpV6Address:prefixLen", "", 0},
    {0x45, nullptr, 0x450001, 3, 0, 0, R"("Key":"Slot{n}")", {"slotNumStr", "#slotNum"}, "", "", 0},
    {0x45, nullptr, 0x450101, 3, 0, 0, R"("emptySlotObj_DOT_Key":"Raid{n}","emptySlotObj_DOT_slotType":7)", {"fqdd", "emptySlotObj_DOT_slotNumStr"}, "", "", 0},
    {0x31B, nullptr, 0x31B0001, 3, 0, 0, R"("key":"Smart{n}","protocol":64,"attributes":2)", {"friendlyFQDD", "fqdd"}, "", "", 0},
    {0xC003, nullptr, 0xC0030001, 6, 0x5E0001, 1, R"("key":"Port{n}")", {"uniqueKey", "FQDD"}, "", "", 0},
    {0x4051, kInt, 0x40510001, 6, 0, 0, "Tarnu.Embedded.1#Chaos.1#Int{n}", {"#currentValue", "DisplayName"}, "", "", 0},
    {0x4052, kStr, 0x40520001, 4, 0, 0, "Tarnu.Embedded.1#Chaos.1#Str{n}", {"CurrentValue", "DisplayName"}, "", "", 0},
    {0x4052, kStr, 0x40520101, 3, 0, 0, "Tarnu.Embedded.1#Chaos.2#AppRawData{n}", {"CurrentValue", "DisplayName"}, "", "", kRaw},
    {0x4053, kEnum, 0x40530001, 4, 0, 0, "Tarnu.Embedded.1#Chaos.10#Enum{n}", {"CurrentValue", "DisplayName"}, "", "", 0},
    {0x4054, kPasswd, 0x40540001, 4, 0, 0, "Tarnu.Embedded.1#Chaos.1#Passwd{n}", {"CurrentValue", "DisplayName"}, "", "", 0},
    {0x4051, kInt, 0x40510201, 1, 0, 0, "Tarnu.Embedded.1#SerialCapture.1#SerialDataSize", {"#currentValue", "DisplayName"}, "", "*", kPassed},
    {0x4052, kStr, 0x40520201, 1, 0, 0, "System.Embedded.1#SystemInfo.1#BootTime", {"CurrentValue", "DisplayName"}, "", "*", kPassed},
};
// clang-format on

} // namespace qdb::chaos
