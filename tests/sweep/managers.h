// What there is in both managers in a sweep: an object of every type and, for
// what happens in the course of it, one of each kind that the service treats in
// a way of its own.
#pragma once

#include "core/json.h"

#include <cstdint>
#include <vector>

namespace qdb::sweep
{

enum Oid : uint32_t
{
    kParent = 0x500,
    kStatus = 0x600, // plain
    kList,           // with an array
    kJoined,         // with joined lists
    kWide,           // that is read by columns
    kJob,            // whose failures are kept
    kSlot,           // of a type with two tables
    kModule,         // from here on, passes and status changes reload
    kNvdimm,
    kBoard,
    kBezel,
    kStick,
    kSystem,
    kNew = 0x700, // is added for those that come later
};

struct Object
{
    uint16_t type;
    uint32_t oid;
    const char *values;
    const char *changed;
};

struct Setting
{
    const char *interface;
    const char *key;
    const char *changed;
};

// clang-format off
inline constexpr Object kObjects[] = {
    {0x1001, kStatus, R"({"popName":"a"})", R"({"popName":"\u0001","popStatus":2})"},
    {0x801, kList, R"({"ObjTypeList":[1,2]})", R"({"ObjTypeList":[1,7,8]})"},
    {0x706, kJoined, R"({"possible_value_":["a","b"]})", R"({"possible_value_":["c"]})"},
    {0x15, kWide, R"({"boardProductName":"a"})", R"({"boardProductName":"b"})"},
    {0xA03, kJob, R"({"jobInfo_DOT_Key":"J"})", R"({"jobInfo_DOT_Message":"m"})"},
    {0x45, kSlot, R"({"emptySlotObj_DOT_Key":"R","emptySlotObj_DOT_slotType":7})", R"({"fqdd":"f"})"},
    {0xE1, kModule, R"({"Key":"DIMM"})", R"({"Speed":2933})"},
    {0xE1, kNvdimm, R"({"Key":"NVDIMM","TypeDetail":4224})", R"({"RemainingRatedWriteEndurance":9})"},
    {0x42, kBoard, R"({"Key":"Disk.Bay.1"})", R"({"SerialNumber":"s"})"},
    {0xEB, kBezel, R"({"key":"Bezel"})", R"({"fwVersion":"2"})"},
    {0xEC, kStick, R"({"key":"Stick"})", R"({"serialNumber":"2"})"},
    {0x91, kSystem, R"({"Key":"91||System.Embedded.1"})", R"({"SysProductName":"p"})"},
};
inline constexpr Setting kSettings[] = {
    {"CfgIntAttribute", "A.1#B.1#I", R"({"currentValue":7})"},
    {"CfgStrAttribute", "A.1#B.1#S", R"({"CurrentValue":"s"})"},
    {"CfgEnumAttribute", "A.1#B.1#E", R"({"CurrentValue":"e"})"},
    {"CfgPasswdAttribute", "A.1#B.1#P", R"({"CurrentValue":"p"})"},
    {"CfgStrAttribute", "A.1#B.1#AppRawData1", R"({"DisplayName":"d"})"},
    {"CfgIntAttribute", "Tarnu.Embedded.1#SerialCapture.1#SerialDataSize", R"({"DisplayName":"d"})"},
};
inline constexpr const Setting &kRawSetting = kSettings[4];
inline constexpr const Setting &kSeenSetting = kSettings[5]; // by passes
// clang-format on

// Those, and an object of every type.
void FillManagers();

void PutObject(const Object &object, uint32_t oid, bool announce);
void SetObject(uint32_t oid, const char *values, bool announce);
void PutSetting(const Setting &setting, const char *values = "{}");

// The OIDs of all objects that there ever were.
std::vector<uint32_t> AllOids();

// A setting as the configuration manager's signals tell of it.
JsonPtr Announced(const Setting &setting);

JsonPtr Parse(const char *text);

} // namespace qdb::sweep
