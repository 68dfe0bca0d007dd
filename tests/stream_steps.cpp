#include "tests/stream_steps.h"

#include "config/config_load.h"
#include "config/key_reload.h"
#include "config/raw_data.h"
#include "core/gate.h"
#include "core/json.h"
#include "events/bus_dispatch.h"
#include "events/dispatch.h"
#include "events/status_change.h"
#include "queues/fail_queue.h"
#include "reconcile/count_check.h"
#include "reconcile/fru_reload.h"
#include "reconcile/key_reload.h"
#include "reconcile/memory_reload.h"
#include "reconcile/population.h"
#include "reconcile/type_reload.h"
#include "tests/support/config_bytes.h"
#include "tests/support/handler_fixture.h"
#include "tests/support/stream_driver.h"

#include <sys/mman.h>
#include <unistd.h>

namespace qdb::test
{
namespace
{

// --- What there is before a step ---------------------------------------------

// An object of the Data Manager, of which the reload hears nothing.
void Object(const Bytes &object, const Words &parents = {kParentOid})
{
    EXPECT_EQ(standin::PutRawObject(object, parents), "");
}

void Gone(uint32_t oid)
{
    standin::DeleteObjects(Words{oid}, false);
}

// A row, and an object that may differ from it.
void Row(const Bytes &row, const Bytes &object)
{
    EXPECT_EQ(Create(row), 0);
    Object(object);
}

void Lose(const char *call, int skip = 0)
{
    standin::SetFault(call, 0, 1, skip);
}

Bytes Memory(const std::string &key, int typeDetail = 0, int endurance = 0)
{
    return MakeObject(0xE1, 5,
                      R"({"Key": ")" + key + R"(", "TypeDetail": )" +
                          std::to_string(typeDetail) +
                          R"(, "RemainingRatedWriteEndurance": )" +
                          std::to_string(endurance) + "}");
}

Bytes Power(int state)
{
    return MakeObject(0x36, 7,
                      R"({"powerState": )" + std::to_string(state) + "}");
}

Bytes Fru(const std::string &serial, const std::string &key = "Disk.Bay.1")
{
    return MakeObject(0x42, 9,
                      R"({"Key": ")" + key + R"(", "SerialNumber": ")" +
                          serial + R"("})");
}

void System(const std::string &host)
{
    Gone(8); // its key is looked up
    PutObject(0x91, 8,
              R"({"Key": "91||System.Embedded.1", "HostName": ")" + host +
                  R"("})");
}

Bytes Device(uint16_t type, uint32_t oid, const std::string &name)
{
    return MakeObject(type, oid, R"({"productName": ")" + name + R"("})");
}

// One of the five attributes that are reloaded.
void Setting(int index, const std::string &name)
{
    static constexpr const char *kKeys[] = {
        "Tarnu.Embedded.1#SerialCapture.1#SerialDataSize",
        "System.Embedded.1#ServerOS.1#ServerPoweredOnTime",
        "System.Embedded.1#Diagnostics.1#OSAppCollectionTime",
        "System.Embedded.1#SystemInfo.1#BootTime",
        "System.Embedded.1#SystemInfo.1#SysTime",
    };
    const JsonPtr values(json_pack("{s:s}", "Name", name.c_str()));
    EXPECT_EQ(name.empty()
                  ? standin::RemoveAttribute(kKeys[index])
                  : standin::PutAttribute(
                        index < 2 ? "CfgIntAttribute" : "CfgStrAttribute",
                        kKeys[index], values.get(),
                        0x4050 + static_cast<uint32_t>(index)),
              "");
}

void Settings()
{
    for (int index = 0; index < 5; ++index)
    {
        Setting(index, "0");
    }
}

// With one of a later table.
void SettingsWithRows()
{
    Settings();
    standin::PutAttribute("CfgEnumAttribute", "A.1#B.1#E", nullptr, 20);
    OnLoadObjectsCreation();
}

// What the count check compares: a populator's status, a battery, a GPU.
Bytes Counted(uint16_t type, uint32_t oid, const std::string &key, int value)
{
    return MakeObject(
        type, oid,
        std::string(type == 0x1001 ? R"({"key": ")" : R"({"Key": ")") + key +
            R"(", ")" + (type == 0x1001 ? "popStatus" : "DOH_ObjStatus") +
            "\": " + std::to_string(value) + "}");
}

// A row of the battery's probe, and its object.
void Battery(const std::string &rowKey, const std::string &key)
{
    standin::ObjectSpec battery;
    battery.type = 0x5E;
    battery.oid = 900;
    battery.key = "Tarnu.Embedded.1#SubSystem.1#Battery";
    EXPECT_EQ(standin::CreateObject(battery, false), "");
    const Bytes parent = standin::ObjectBytes(900);
    EXPECT_EQ(Create(Counted(0x1B, 16, rowKey, 1), HeaderOf(parent)), 0);
    Object(Counted(0x1B, 16, key, 1), {900});
}

void Failed(uint32_t oid, FailedOperation operation, uint32_t type)
{
    QdbFailenQueue(gFailQueue, oid, operation, QdbFailObjTypeIndex(type));
}

// Three objects, of which one has a row.
void Three()
{
    for (const uint32_t oid : {16u, 31u, 32u})
    {
        PutObject(kStatus, oid);
    }
    EXPECT_EQ(Create(MakeObject(kStatus, 16)), 0);
}

constexpr char kKey[] = "Test.1#Group.1#Name";

void Attribute()
{
    standin::PutAttribute("CfgIntAttribute", kKey, nullptr, 17);
}

// One or two objects of several types, two attributes and root data.
void Several()
{
    Three();
    Attribute();
    standin::PutAttribute("CfgPasswdAttribute", "A.1#B.1#D", nullptr, 18);
    PutObject(0x31B, 21, R"({"protocol": 64})");
    PutObject(0x31B, 22, R"({"protocol": 32})"); // a hard disk
    PutObject(0xE1, 23);
    PutObject(0x900, 14);
    PutObject(0x900, 15);
    Bytes unknown = MakeObject(kStatus, 61);
    unknown[8] = unknown[9] = 0x77;
    Object(unknown);
}

// --- What is carried out -----------------------------------------------------

int Notify(uint16_t kind, const Words &oids)
{
    return ObjectNotification(EventOf(List(kind, oids)), kind);
}

int NotifyBus(uint16_t kind, uint32_t oid = 17)
{
    constexpr uint16_t kFromBus = 65533;
    return ObjectNotificationDbus(
        EventOf(BusRecord(kind, oid, standin::AttributePath(kKey),
                          "com.vexo.tarnu.Config.CfgIntAttribute")),
        kFromBus);
}

int Status(const Bytes &object)
{
    return ObjectNotificationStChg(
        EventOf(Record(4, {0}, {object.begin(), object.end()})));
}

constexpr auto kEverything = OnLoadObjectsCreation;
constexpr auto kMemory = ReLoadNCObjects;
constexpr auto kFrus = ReLoadFRUNCObjects;
constexpr auto kKeyed = ReLoadKeyBasedNCObjects;
constexpr auto kSettings = ReLoadCfgKeyBasedNCObjects;
constexpr auto kDevices = ObjTypeBasedNCObjects;
constexpr auto kCounts = CheckDMObjCountandReCreateEntries;

int ClearAll()
{
    return ClearTableData("ActiveOIDMapping");
}

int ClearType()
{
    return ClearTblDatabyObjType(kStatus);
}

int ReloadSettings()
{
    EXPECT_TRUE(EnterGate());
    EXPECT_EQ(ReloadConfigObjectsThread(nullptr), nullptr);
    return 0;
}

int Fetch(uint32_t type)
{
    DataObjHeader *fetched = nullptr;
    const int status = dbus_get_data_obj_hdr(
        type, standin::AttributePath(kKey).c_str(), &fetched);
    EXPECT_EQ(fetched, nullptr);
    return status;
}

int FetchGroup(const char *path)
{
    DataObjHeader *fetched = nullptr;
    const int status = GetCfgGroupByPath(path, &fetched);
    const ConfigObjectPtr owner(fetched);
    EXPECT_STREQ(fetched == nullptr ? "none" : GetCfgObjectKey(fetched),
                 status == 0 ? "Test.1#Group.1" : "none");
    return status;
}

// The file that is imported; a descriptor has the same path in every run.
void RawFile(const std::string &content)
{
    constexpr int kDescriptor = 99;
    const int made = memfd_create("raw", MFD_CLOEXEC);
    EXPECT_EQ(write(made, content.data(), content.size()),
              static_cast<ssize_t>(content.size()));
    EXPECT_EQ(dup2(made, kDescriptor), kDescriptor);
    close(made);
}

int ImportRaw()
{
    const std::string texts("certs.1#PLAIN\0/proc/self/fd/99\0", 31);
    return ObjectNotificationRawData(EventOf(Record(1130, {24, 38}, texts)),
                                     1130);
}

const std::string kRawSelect = "SELECT json_object('accessType'";
const std::string kRawUpdate = "UPDATE TblStrAttribute SET 'SingleRecordEtag'";
constexpr char kRestoreRaw[] =
    "UPDATE TblStrAttribute SET CurrentValue = 'old', isRawData = 0";

constexpr uint32_t kMappedOid = 0x80000010;
constexpr char kMapped[] =
    "DELETE FROM ActiveOIDMapping;"
    "INSERT INTO ActiveOIDMapping VALUES(-2147483632, 9)";

template <uint32_t kType>
int Map()
{
    return insertinActiveOIDMapping(kMappedOid, kType,
                                    PatienceOf(*FindRow(kType)));
}

template <uint32_t kType>
int MapInBacklog()
{
    gSkipConstraintCheck = 1;
    const int result = insertinActiveOIDMapping(kMappedOid, kType,
                                                PatienceOf(*FindRow(kType)));
    gSkipConstraintCheck = 0;
    return result;
}

int TypeOfMapped()
{
    return static_cast<int>(GetObjType(kMappedOid));
}

const std::string kClear = "delete from ActiveOIDMapping";
constexpr char kUnmap[] = "DELETE FROM ActiveOIDMapping";
const std::string kRemove = "DELETE FROM ActiveOIDMapping WHERE Oid";

} // namespace

// clang-format off
const std::vector<WideStep> &WideSteps()
{
    static const std::vector<WideStep> kSteps = {
        {"create of two", Three, [] { return Notify(kCreate, {31, 32}); }, {}, true},
        {"gone first", Three, [] { return Notify(kCreate, {99, 31}); }, {}, true},
        {"gone last", Three, [] { return Notify(kCreate, {31, 99}); }, {}, true},
        {"refresh, gone in between", [] {}, [] { return Notify(kDirty, {99, 16, 99}); }},
        {"refresh without a row", [] {}, [] { return Notify(kDirty, {32}); }},
        {"create of a row", [] {}, [] { return Notify(kCreate, {16, 32}); }},
        {"fails, then gone", Three, [] { return Notify(kCreate, {31, 99}); }, Failing(kMapping, 1, 1), true},
        {"gone, then fails", [] {}, [] { return Notify(kCreate, {99, 31}); }, Failing(kMapping, 1, 1)},
        {"corrupt, then gone", [] {}, [] { return Notify(kCreate, {31, 99}); }, Failing(kMapping, 11, 1)},
        {"corrupt, then fails", [] {}, [] { return Notify(kCreate, {31, 32}); }, Failing(kMapping, {11, 1}, {1, 1})},
        {"fails, then corrupt", [] {}, [] { return Notify(kCreate, {31, 32}); }, Failing(kMapping, {1, 1}, {11, 1})},
        {"corrupt, then good", [] {}, [] { return Notify(kCreate, {31, 32}); }, Failing(kMapping, 11, 1)},
        {"refresh locked", [] {}, [] { return Notify(kDirty, {16}); }, {{}, {{"UPDATE TblDMStatus", {6, 99}}}}},
        {"refresh locked for ever", [] {}, [] { return Notify(kDirty, {16}); }, {{}, {{"UPDATE TblDMStatus", {6, 100}}}}},
        {"destroy fails", [] {}, [] { return Notify(kDestroy, {16}); }, Failing("DELETE FROM Active", 1, 2)},
        {"destroy corrupt", [] {}, [] { return Notify(kDestroy, {16}); }, Failing("DELETE FROM Active", 11, 2)},
        {"destroy of one that is unknown", [] {}, [] { return Notify(kDestroy, {99, 16}); }},
        {"create without a list of parents", [] { standin::SetFault("ZOILListParentOID", 0, 2); }, [] { return Notify(kCreate, {31}); }},

        {"create of what is mapped as an attribute", [] {}, [] { return Notify(kCreate, {16}); }, {}, true, "INSERT INTO ActiveOIDMapping VALUES (16, 0x4051)"},
        {"change of it", [] {}, [] { return Notify(kDirty, {16}); }, {}, false, "UPDATE ActiveOIDMapping SET ObjType = 0x4054"},
        {"destroy of it", [] {}, [] { return Notify(kDestroy, {16}); }},
        {"change of what is mapped as a group", [] {}, [] { return Notify(kDirty, {16}); }, {}, false, "UPDATE ActiveOIDMapping SET ObjType = 0x4050"},
        {"create of an attribute's object", [] { Object(MakeObject(0x4051, 16)); }, [] { return Notify(kCreate, {16}); }, {}, false, kUnmap},
        {"change of it", [] {}, [] { return Notify(kDirty, {16}); }},

        {"attribute without a group", [] { Attribute(); standin::SetFault("CfgGroup_get_object", 5, 1); }, [] { return NotifyBus(kCreate); }, {}, true},
        {"attribute busy", [] {}, [] { return NotifyBus(kDirty); }, {{}, {{"UPDATE TblInt", {6, 99}}}}},
        {"attribute busy for ever", [] {}, [] { return NotifyBus(kDirty); }, {{}, {{"UPDATE TblInt", {5, 100}}}}},
        {"attribute corrupt", [] {}, [] { return NotifyBus(kDirty); }, Unprepared("UPDATE TblInt", 11)},
        {"attribute fails", [] {}, [] { return NotifyBus(kDirty); }, Unprepared("UPDATE TblInt", 1)},
        {"attribute not destroyed, corrupt", [] {}, [] { return NotifyBus(kDestroy); }, Failing("DELETE FROM Active", 11, 2)},
        {"attribute not destroyed", [] {}, [] { return NotifyBus(kDestroy); }, Failing("DELETE FROM Active", 1, 2)},
        {"unknown attribute destroyed", [] {}, [] { return NotifyBus(kDestroy, 19); }},
        {"tables not emptied", [] {}, [] { return ObjectNotificationDbus(EventOf(Record(65533, {23, 0, 0, 0})), 65533); }, Unprepared("INNER JOIN TblEnum", 1)},

        {"everything", Several, kEverything, {}, true, kUnmap},
        {"groups missing", Several, kEverything, {}, true, kUnmap, "client_get_objects"},
        {"interface missing", Several, kEverything, {}, true, kUnmap, "client_get_objects", 1},
        {"list of the first type missing", Several, kEverything, {}, true, kUnmap, "ZOILListChildOIDByType"},
        {"list of the last type missing", Several, kEverything, {}, true, kUnmap, "ZOILListChildOIDByType", 156},
        {"first object missing", Several, kEverything, {}, true, kUnmap, "ZOILGetObjByOID"},
        {"parents missing", Several, kEverything, {}, true, kUnmap, "ZOILListParentOID"},
        {"fails", Three, kEverything, Failing(kMapping, 1, 1), true, kUnmap},
        {"fails, corrupt", Three, kEverything, Failing(kMapping, {1, 1}, {11, 1}), true, kUnmap},
        {"corrupt, fails", Three, kEverything, Failing(kMapping, {11, 1}, {1, 1}), true, kUnmap},
        {"corrupt, good", Three, kEverything, Failing(kMapping, 11, 1), true, kUnmap},
        {"corrupt, gone", Three, kEverything, Failing(kMapping, 11, 1), true, kUnmap, "ZOILGetObjByOID", 2},
        {"gone, corrupt", Three, kEverything, Failing(kMapping, 11, 1), true, kUnmap, "ZOILGetObjByOID"},
        {"cleared", Several, ClearAll, {}, true},
        {"clearing busy", Three, ClearAll, {{}, {{kClear, {5, 99}}}}, true},
        {"clearing busy for ever", Three, ClearAll, {{}, {{kClear, {5, 100}}}}, true},
        {"clearing invalid for ever", [] {}, ClearAll, {{}, {{kClear, {8216, 100}}}}},
        {"clearing unprepared", [] {}, ClearAll, Unprepared(kClear, 1)},
        {"clearing fails", [] {}, ClearAll, Failing(kClear, 19, 1)},
        {"clearing prepared with another status", [] {}, ClearAll, Unprepared(kClear, 101)},
        {"type's clearing fails", Several, ClearType, Failing(kClear, 19, 1), true},
        {"type's clearing unprepared", [] {}, ClearType, Unprepared(kClear, 1)},
        {"type cleared", [] {}, ClearType},
        {"settings' clearing fails", SettingsWithRows, ClearCfgMgrData, Failing("INNER JOIN TblStr", 19, 1), true},
        {"settings' clearing unprepared", SettingsWithRows, ClearCfgMgrData, Unprepared("INNER JOIN TblStr", 1), true},
        {"settings cleared", SettingsWithRows, ClearCfgMgrData, {}, true},

        {"settings reloaded", [] { Attribute(); Settings(); }, ReloadSettings, {}, true},
        {"no groups", [] {}, ReloadSettings, {}, false, kUnmap, "client_get_objects"},
        {"no list of groups", [] { standin::SetFault("client_get_objects", 0, 1); }, ReloadSettings, {}, false, kUnmap},
        {"no strings", [] {}, ReloadSettings, {}, false, kUnmap, "client_get_objects", 2},
        {"a row fails", [] {}, ReloadSettings, Failing("INTO TblStrAttribute", 1, 2), false, kUnmap},
        {"no strings, and a row is corrupt", [] {}, ReloadSettings, Failing("INTO TblIntAttribute", 11, 2), false, kUnmap, "client_get_objects", 2},

        {"attribute of a group's type", Attribute, [] { return Fetch(0x4050); }, {}, true},
        {"attribute of a type too high", [] {}, [] { return Fetch(0x4055); }},
        {"attribute of another type", [] {}, [] { return Fetch(0x4052); }},
        {"attribute that is no object", [] { standin::SetFault("CfgIntAttribute_get_object", 0, 1); }, [] { return Fetch(0x4051); }},
        {"attribute to be put nowhere", [] {}, [] { return dbus_get_data_obj_hdr(0x4051, "/x", nullptr); }},
        {"group of an attribute", [] {}, [] { return FetchGroup("/com/vexo/tarnu/Config/Attributes/test_1/group_1/name"); }},
        {"group that isn't there", [] {}, [] { return FetchGroup("/com/vexo/tarnu/Config/Attributes/test_1/group_10/name"); }},
        {"group of no path's end", [] {}, [] { return FetchGroup("name"); }},
        {"group of no path", [] {}, [] { return FetchGroup(nullptr); }},

        {"raw data", [] { RawFile("new"); EXPECT_EQ(Create(MakeObject(0x4052, 19, R"({"Key": "Certs.1#Plain"})")), 0); }, ImportRaw, {}, true},
        {"first prepare", [] {}, ImportRaw, Unprepared(kRawSelect, 1), false, kRestoreRaw},
        {"prepare of the update", [] {}, ImportRaw, Unprepared(kRawUpdate, 7), false, kRestoreRaw},
        {"first step", [] {}, ImportRaw, Failing(kRawSelect, 5, 1), false, kRestoreRaw},
        {"row without text", [] {}, ImportRaw, Failing(kRawSelect, 100, 1), false, kRestoreRaw},
        {"step of the update", [] {}, ImportRaw, Failing(kRawUpdate, 11, 1), false, kRestoreRaw},
        {"update that waits", [] {}, ImportRaw, Failing(kRawUpdate, 5, 2), false, kRestoreRaw},
        {"update that waits in vain", [] {}, ImportRaw, Failing(kRawUpdate, 6, 100), false, kRestoreRaw},
        {"second step", [] {}, ImportRaw, {{{kRawSelect, {101, 1}}}, {}, 1}, false, kRestoreRaw},
        {"content that is no text", [] { RawFile("\xFF"); }, ImportRaw, {}, false, kRestoreRaw},
        {"behind such content", [] { RawFile("new"); }, ImportRaw},
        {"no row", [] {}, ImportRaw, {}, false, kUnmap},

        {"mapped before", [] {}, Map<0x15>, {}, true, kMapped},
        {"mapped before, paused", [] {}, Map<0x5E>, {}, false, kMapped},
        {"mapped before, tolerant", [] {}, Map<0x42>, {}, false, kMapped},
        {"free in time", [] {}, Map<0x801>, Failing(kMapping, 19, 99), false, kUnmap},
        {"mapping busy", [] {}, Map<0x15>, Failing(kMapping, 5, 100), false, kUnmap},
        {"mapping corrupt", [] {}, Map<0x42>, Failing(kMapping, 11, 1), false, kUnmap},
        {"mapping gives a row", [] {}, Map<0x15>, Failing(kMapping, 100, 1), false, kUnmap},
        {"mapping invalid", [] {}, Map<0x15>, Failing(kMapping, 8216, 1), false, kUnmap},
        {"backlog, mapped before", [] {}, MapInBacklog<0x15>, {}, false, kMapped},
        {"backlog, mapped before, paused", [] {}, MapInBacklog<0x801>, {}, false, kMapped},
        {"backlog, mapped before, tolerant", [] {}, MapInBacklog<0x42>, {}, false, kMapped},
        {"backlog, busy", [] {}, MapInBacklog<0x15>, Failing(kMapping, 5, 100), false, kUnmap},
        {"backlog, free in time", [] {}, MapInBacklog<0x16>, Failing(kMapping, 6, 99), false, kUnmap},
        {"backlog, corrupt later", [] {}, MapInBacklog<0x15>, Failing(kMapping, {5, 2}, {11, 1}), false, kUnmap},
        {"type of an OID", [] {}, TypeOfMapped, {}, false, "DELETE FROM ActiveOIDMapping; INSERT INTO ActiveOIDMapping VALUES (-2147483632, 225)"},
        {"type unprepared", [] {}, TypeOfMapped, Unprepared("select ObjType", 1)},
        {"type unread", [] {}, TypeOfMapped, Failing("select ObjType", 1, 1)},
        {"type that is a real", [] {}, TypeOfMapped, {}, false, "UPDATE ActiveOIDMapping SET ObjType = 2.5"},
        {"type that is a text", [] {}, TypeOfMapped, {}, false, "UPDATE ActiveOIDMapping SET ObjType = 'abc'"},
        {"type of an OID that isn't mapped", [] {}, TypeOfMapped, {}, false, kUnmap},

        {"one type", Several, [] { return InsertObjBasedOnObjType(0x900); }, {}, true, kUnmap},
        {"one type fails, corrupt", [] {}, [] { return InsertObjBasedOnObjType(0x900); }, Failing(kMapping, {1, 1}, {11, 1}), false, kUnmap},
        {"one type corrupt, fails", [] {}, [] { return InsertObjBasedOnObjType(0x900); }, Failing(kMapping, {11, 1}, {1, 1}), false, kUnmap},
        {"one type unlisted", [] {}, [] { return InsertObjBasedOnObjType(0x900); }, {}, false, kUnmap, "ZOILListChildOIDByType"},
        {"first row of two", [] {}, [] { return InsertObjBasedOnObjType(0x31B); }, {}, false, kUnmap},
        {"no objects", [] {}, [] { return InsertObjBasedOnObjType(0x1C); }, {}, false, kUnmap},
        {"unknown type", [] {}, [] { return InsertObjBasedOnObjType(0x7777); }, {}, false, kUnmap},
        {"attributes, not from here", [] {}, [] { return InsertObjBasedOnObjType(0x4051); }, {}, false, kUnmap},

        {"memory with a valid key", [] { Row(Memory("DIMM.A1"), Memory("DIMM.A1")); }, kMemory, {}, true},
        {"memory without a row", [] { Object(Memory("DIMM.A1")); }, kMemory, {}, true},
        {"memory with an invalid key", [] { Row(Memory("DIM.A1"), Memory("DIMM.A1")); }, kMemory, {}, true},
        {"delete fails", [] { Row(Memory("DIM.A1"), Memory("DIMM.A1")); }, kMemory, Failing(kRemove, 1, 2), true},
        {"delete corrupt", [] {}, kMemory, Failing(kRemove, 11, 2)},
        {"create corrupt", [] {}, kMemory, Failing(kMapping, 11, 1)},
        {"memory unlisted", [] { Row(Memory("DIM.A1"), Memory("DIMM.A1")); Row(Power(1), Power(2)); Lose("ZOILListChildOIDByType"); }, kMemory, {}, true},
        {"memory gone", [] { Object(Power(1)); Lose("ZOILGetObjByOID"); }, kMemory},
        {"gone, then fails", [] { Object(Power(2)); Lose("ZOILGetObjByOID"); }, kMemory, Failing(kRemove, 1, 2)},
        {"power and memory differ", [] {}, kMemory},
        {"nothing differs", [] {}, kMemory},
        {"another count of parents", [] { Object(Power(2), {kParentOid, kOtherParentOid}); }, kMemory},
        {"no parents", [] { Object(Power(0), {}); }, kMemory},
        {"parents unlisted", [] { Object(Power(0)); Lose("ZOILListParentOID", 1); }, kMemory},
        {"count unread", [] { Object(Power(2), {}); }, kMemory, Failing("SELECT count(*) FROM TblHostPower", 1, 1)},
        {"first row", [] { Object(Power(0)); }, kMemory, {}, true},
        {"NVDIMM", [] { Row(Memory("DIMM.A1", 0x1000, 50), Memory("DIMM.A1", 0x1000, 50)); }, kMemory, {}, true},
        {"worn", [] { Object(Memory("DIMM.A1", 0x1000, 49)); }, kMemory},
        {"still worn", [] {}, kMemory},
        {"as at first", [] { Object(Memory("DIMM.A1", 0x1000, 50)); }, kMemory},

        {"FRU of no disk", [] { Row(Fru("A"), Fru("A", "Disk.Ba.1")); }, kFrus, {}, true},
        {"without a key", [] { Object(With(Fru("A"), 0x14, 0)); }, kFrus},
        {"key outside", [] { Object(With(Fru("A"), 0x14, 4000)); }, kFrus},
        {"new", [] { Object(Fru("A")); }, kFrus},
        {"same", [] {}, kFrus},
        {"changed", [] { Object(Fru("B")); }, kFrus},
        {"corrupt", [] {}, kFrus, Unprepared("UPDATE TblFRUObj", 11)},
        {"busy", [] {}, kFrus, {{}, {{"UPDATE TblFRUObj", {5, 1}}, {"UPDATE TblFRUObj", {6, 98}}}}},
        {"busy for ever", [] {}, kFrus, {{}, {{"UPDATE TblFRUObj", {5, 100}}}}},
        {"unreadable at first", [] {}, kFrus, {{}, {{"UPDATE TblFRUObj", {8216, 99}}}}},
        {"unreadable", [] {}, kFrus, {{}, {{"UPDATE TblFRUObj", {8216, 100}}}}},
        {"unlisted", [] { Lose("ZOILListChildOIDByType"); }, kFrus},
        {"gone", [] { Lose("ZOILGetObjByOID"); }, kFrus},
        {"too long", [] { Object(Fru(std::string(100, 'x'))); }, kFrus},
        {"never the same", [] {}, kFrus},

        {"keyed object", [] { System("a"); EXPECT_EQ(Create(standin::ObjectBytes(8)), 0); }, kKeyed, {}, true},
        {"same", [] {}, kKeyed},
        {"changed", [] { System("b"); }, kKeyed},
        {"fails", [] { System("c"); }, kKeyed, Unprepared("UPDATE TblSystemInfo", 1)},
        {"isn't tried again", [] {}, kKeyed},
        {"corrupt", [] { System("d"); }, kKeyed, Unprepared("UPDATE TblSystemInfo", 11)},
        {"busy", [] { System("e"); }, kKeyed, {{}, {{"UPDATE TblSystemInfo", {5, 1}}, {"UPDATE TblSystemInfo", {6, 98}}}}},
        {"unreadable at first", [] { System("f"); }, kKeyed, {{}, {{"UPDATE TblSystemInfo", {8216, 99}}}}},
        {"unreadable", [] { System("g"); }, kKeyed, {{}, {{"UPDATE TblSystemInfo", {8216, 100}}}}},
        {"unreadable, then gone", [] { System("h"); Lose("ZOILGetObjByKey", 1); }, kKeyed, {{}, {{"UPDATE TblSystemInfo", {8216, 100}}}}},
        {"gone", [] { Gone(8); }, kKeyed},

        {"settings without rows", Settings, kSettings, {}, true},
        {"same", [] {}, kSettings},
        {"a size, and bytes", [] { Setting(0, "longer"); Setting(2, "1"); }, kSettings},
        {"rows are missing, of which one has no group", [] { standin::SetFault("CfgGroup_get_object", 5, 1, 1); }, kSettings, {}, false, "DELETE FROM ActiveOIDMapping WHERE OID IN (0x4051, 0x4054)"},
        {"corrupt", [] { Setting(4, "1"); }, kSettings, Unprepared("UPDATE TblStr", 11)},
        {"earlier one corrupt", [] { Setting(2, "2"); }, kSettings, Unprepared("UPDATE TblStr", 11)},
        {"busy", [] { Setting(4, "2"); }, kSettings, {{}, {{"UPDATE TblStr", {5, 99}}}}},
        {"busy for ever", [] { Setting(4, "3"); }, kSettings, {{}, {{"UPDATE TblStr", {6, 100}}}}},
        {"unreadable", [] { Setting(4, "4"); }, kSettings, Unprepared("UPDATE TblStr", 8216)},
        {"unreadable, then gone", [] { Setting(4, "5"); standin::SetFault("CfgStrAttribute_get_object", 5, 1, 3); }, kSettings, Unprepared("UPDATE TblStr", 8216)},
        {"checks unprepared", [] {}, kSettings, {{}, {{"SELECT EXISTS", {1, 5}}}}, false, "DELETE FROM ActiveOIDMapping"},
        {"checks busy", [] {}, kSettings, Failing("SELECT EXISTS", 5, 5)},
        {"checks without a row", [] {}, kSettings, Failing("SELECT EXISTS", 101, 5)},
        {"first gone", [] { Setting(0, ""); }, kSettings},
        {"last gone", [] { Setting(4, ""); }, kSettings},

        {"devices unlisted", [] { standin::SetFault("ZOILListChildOIDByType", 0, 2); }, kDevices, {}, true},
        {"devices", [] { Object(Device(0xEB, 5, "a")); Object(Device(0xEC, 6, "u")); }, kDevices},
        {"same", [] {}, kDevices},
        {"bytes", [] { Object(Device(0xEB, 5, "b")); }, kDevices},
        {"size", [] { Object(Device(0xEB, 5, "bb")); }, kDevices},
        {"fails", [] { Object(Device(0xEB, 5, "c")); }, kDevices, Failing(kMapping, 1, 1)},
        {"isn't tried again", [] {}, kDevices},
        {"no row to delete", [] { Object(Device(0xEB, 5, "d")); }, kDevices},
        {"corrupt", [] { Object(Device(0xEB, 5, "e")); }, kDevices, Failing(kMapping, 11, 1)},
        {"no list", [] { Lose("ZOILListChildOIDByType"); }, kDevices},
        {"new again", [] {}, kDevices},
        {"empty list", [] { Gone(5); }, kDevices},
        {"as before", [] { Object(Device(0xEB, 5, "e")); }, kDevices},
        {"list lost", [] { Lose("ZOILListChildOIDByType"); }, kDevices},
        {"once more", [] {}, kDevices},
        {"removal unprepared", [] { Lose("ZOILListChildOIDByType"); }, kDevices, Unprepared(kRemove, 1)},
        {"there already", [] {}, kDevices},
        {"removal fails", [] { Lose("ZOILListChildOIDByType"); }, kDevices, Failing(kRemove, 19, 1)},
        {"two of a type", [] { Object(Device(0xEB, 5, "a")); Object(Device(0xEB, 4, "b")); }, kDevices},
        {"replace each other", [] {}, kDevices},
        {"first is gone", [] { Lose("ZOILGetObjByOID"); }, kDevices},

        {"counts agree", [] { Row(Counted(0x1001, 11, "a", 1), Counted(0x1001, 11, "a", 1)); }, kCounts, {}, true},
        {"one status differs", [] { Object(Counted(0x1001, 11, "a", 2)); }, kCounts},
        {"status above a byte", [] { Object(Counted(0x1001, 11, "a", 0x101)); }, kCounts},
        {"status still above a byte", [] {}, kCounts},
        {"status unread", [] { Object(Counted(0x1001, 11, "a", 3)); }, kCounts, Failing("select popStatus", 1, 1)},
        {"a row is busy", [] { Object(Counted(0x1001, 11, "a", 4)); }, kCounts, Failing("UPDATE \"TblDMStatus", 5, 1)},
        {"count fails", [] { Object(Counted(0x1001, 12, "b", 1)); }, kCounts, Failing("SELECT count(*)", 1, 1)},
        {"distinct count fails", [] {}, kCounts, Failing("SELECT count(distinct", 1, 1)},
        {"clear fails", [] {}, kCounts, Failing("delete from ActiveOIDMapping where ObjType", 1, 1)},
        {"row missing", [] {}, kCounts},
        {"first object gone", [] { Object(Counted(0x1001, 13, "c", 1)); Lose("ZOILGetObjByOID", 1); }, kCounts},
        {"list of a type lost", [] { Lose("ZOILListChildOIDByType"); Row(Counted(0x220, 14, "a", 1), Counted(0x220, 14, "b", 2)); Object(Counted(0x220, 15, "c", 1)); }, kCounts},
        {"unreadable", [] { Bytes object = Counted(0x1001, 12, "b", 5); object[0x15] = 0x20; Object(object); }, kCounts},
        {"no objects", [] { for (const uint32_t oid : {11u, 12u, 13u}) { Gone(oid); } }, kCounts},
        {"same key twice", [] { for (const uint32_t oid : {11u, 12u}) { Row(Counted(0x1001, oid, "a", 1), Counted(0x1001, oid, "a", 1)); } }, kCounts, {}, true},
        {"battery's key differs", [] { Battery("a", "ab"); }, kCounts, {}, true},
        {"battery's key unread", [] { Battery("a", "ab"); }, kCounts, Failing("SELECT Key FROM Tblprobeobj", 1, 1), true},
        {"battery's key goes on", [] { Battery("ab", "a"); }, kCounts, {}, true},

        {"newest failure waits", [] { Object(MakeObject(0x40, 21)); Failed(21, FailedOperation::Create, 0x40); }, kCounts, {}, true},
        {"failures in their order", []
            {
                Row(MakeObject(0x40, 22), MakeObject(0x40, 22));
                Object(MakeObject(0x40, 23));
                Row(MakeObject(0xA03, 24), MakeObject(0xA03, 24, R"({"jobInfo_DOT_percentComplete": 20})"));
                Failed(22, FailedOperation::Delete, 0x40);
                Failed(24, FailedOperation::Refresh, 0);
                Failed(23, FailedOperation::RefreshFailure, 0x40);
                Failed(23, FailedOperation::Create, 0); // of no type
                Failed(77, FailedOperation::Create, 0x40); // gone
                Failed(23, static_cast<FailedOperation>(4), 0x40);
                Failed(23, FailedOperation::Create, 0x40);
            }, kCounts},
        {"fails again", [] { Object(MakeObject(0x40, 25)); Failed(25, FailedOperation::Create, 0x40); Failed(25, FailedOperation::Create, 0x40); }, kCounts, Failing(kMapping, 5, 200)},
        {"works at last", [] { Failed(25, FailedOperation::Create, 0x40); Failed(25, FailedOperation::Create, 0x40); }, kCounts},

        {"status of memory", [] { System("a"); }, [] { return Status(Memory("DIMM.A1")); }, {}, true},
        {"of a FRU", [] {}, [] { return Status(Fru("A")); }},
        {"of a device", [] {}, [] { return Status(Device(0xEB, 5, "a")); }},
        {"of the keyed object, which fails", [] { System("b"); }, [] { return Status(standin::ObjectBytes(8)); }, Unprepared("UPDATE TblSystemInfo", 1)},
        {"of another, by its OID keyed", [] { System("c"); }, [] { return Status(MakeObject(0x1001, 8)); }},
        {"of another, busy", [] { EXPECT_EQ(Create(MakeObject(0x1001, 26)), 0); }, [] { return Status(MakeObject(0x1001, 26, R"({"popStatus": 3})")); }, {{}, {{"UPDATE Tbl", {5, 1}}, {"UPDATE Tbl", {6, 98}}}}},
        {"of another, unreadable", [] {}, [] { return Status(MakeObject(0x1001, 26, R"({"popStatus": 4})")); }, {{}, {{"UPDATE Tbl", {8216, 100}}}}},
        {"of another, corrupt", [] {}, [] { return Status(MakeObject(0x1001, 26)); }, Unprepared("UPDATE Tbl", 11)},
        {"of two rows", [] {}, [] { return Status(MakeObject(0x31B, 27, R"({"protocol": 256, "attributes": 2})")); }},
        {"of two rows, first fails", [] {}, [] { return Status(MakeObject(0x31B, 27, R"({"protocol": 256, "attributes": 2})")); }, Unprepared("UPDATE Tbl", 1)},
        {"of an unknown type", [] {}, [] { return Status(With(MakeObject(0x1001, 26), kTypeWord, 0x9999)); }},
        {"without a keyed object", [] { Gone(8); }, [] { return Status(MakeObject(0x1001, 26)); }},
    };
    return kSteps;
}
// clang-format on

} // namespace qdb::test
