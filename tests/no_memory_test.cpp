// Want of memory in every kind of work; see memory_sweep.h.

#include "busintake/match_rules.h"
#include "busintake/signal_thread.h"
#include "config/config_load.h"
#include "config/key_reload.h"
#include "config/raw_data.h"
#include "core/gate.h"
#include "core/json.h"
#include "publish/telemetry.h"
#include "reconcile/count_check.h"
#include "reconcile/fru_reload.h"
#include "reconcile/key_reload.h"
#include "reconcile/population.h"
#include "reconcile/type_reload.h"
#include "tests/support/bus_sender.h"
#include "tests/support/config_bytes.h"
#include "tests/support/memory_sweep.h"

#include <filesystem>
#include <fstream>

namespace qdb::test
{
namespace
{

constexpr uint32_t kOid = 0x51;
constexpr uint32_t kParent = 0x70;
constexpr char kKey[] = "A.1#B.1#C";
const Lines kStatusTable = {"TblDMStatus_Child_Obj"};

// A worker's life with one record.
Work OfWorker(const std::string &name, const Action &begin, const Bytes &record,
              const Lines &tables)
{
    const auto feed = [record]
    {
        static DataEventHeader stop = {0, DATA_EVENT_WORKER_EXIT, 0, {}};
        Enqueue(record);
        QdbenQueue(gQdbEventQueue, &stop);
    };
    const auto run = []
    {
        QdbWorkerArg argument = {1};
        QdbWorkerThread(&argument);
    };
    return {name, begin, run, tables, feed};
}

// A status change of an object that its reload has seen before, or not.
Work OfReload(const std::string &name, const Action &begin, const Bytes &object,
              const std::string &table)
{
    const auto change = [=]
    {
        begin();
        Put(object);
    };
    Work work = OfWorker(
        name, change, Record(4, {0}, {object.begin(), object.end()}), {table});
    work.isOnce = true;
    return work;
}

// Create, refresh and destroy, each by its event: of an object, which has a
// parent, or of an attribute.
std::vector<Work> OfEvents(const std::string &name, const Action &put,
                           const Action &putWithOldRow,
                           const std::function<Bytes(uint16_t)> &record,
                           const Lines &tables)
{
    std::vector<Work> works;
    for (const uint16_t kind :
         {DATA_EVENT_DATA_OBJ_CREATE, DATA_EVENT_DATA_OBJ_DIRTY_LIST,
          DATA_EVENT_DATA_OBJ_DESTROY})
    {
        works.push_back(
            OfWorker(name + " " + std::to_string(kind),
                     kind == DATA_EVENT_DATA_OBJ_CREATE ? put : putWithOldRow,
                     record(kind), tables));
    }
    return works;
}

std::vector<Work> OfObject(const std::string &name, const Bytes &before,
                           const Bytes &after, const Lines &tables)
{
    const auto put = [=]
    {
        Put(Status(kParent, "p", 0));
        Put(after, {kParent});
    };
    const auto old = [=]
    {
        put();
        MakeRow(before);
    };
    const auto record = [](uint16_t kind)
    {
        return List(kind, Words{kOid});
    };
    return OfEvents(name, put, old, record, tables);
}

void PutKey(const char *interface, const std::string &value = "a",
            const char *key = kKey)
{
    const JsonPtr values(json_pack("{s:s}", "DisplayName", value.c_str()));
    EXPECT_EQ(standin::PutAttribute(interface, key, values.get(), kOid), "");
}

Action PutRow(const Bytes &row)
{
    return [=]
    {
        MakeRow(row);
    };
}

Bytes Supply(const std::string &name)
{
    return MakeObject(0x15, kOid, R"({"boardProductName": ")" + name + R"("})");
}

// A setting with two lists of texts.
Bytes Setting(const std::string &texts)
{
    return MakeObject(0x706, kOid,
                      R"({"possible_value_": [)" + texts +
                          R"(], "display_value_": [)" + texts + "]}");
}

Bytes System(const char *host)
{
    return MakeObject(0x91, kOid,
                      std::string(R"({"Key": "91||System.Embedded.1", )") +
                          R"("HostName": ")" + host + R"("})");
}

Action Listen(const Bytes &record)
{
    // Needs no memory itself.
    return [record = Bytes(record)]() mutable
    {
        QDVEventListener(reinterpret_cast<DataEventHeader *>(record.data()));
    };
}

TEST_F(NoMemory, ObjectsAreCreatedRefreshedAndDeleted)
{
    const Lines lists = {"TblSoftwareInventoryMetaDataObject",
                         "INTEGERARR_TblSoftwareInventoryMetaDataObject"};
    const Lines supply = {"TblPowerSupplyObj"};
    // clang-format off
    SweepAll(OfObject("plain", Status(kOid, "a", 1), Status(kOid, "b", 2), kStatusTable));
    SweepAll(OfObject("escaped", Status(kOid, "\\u0001", 1), Status(kOid, "\\u0002", 1), kStatusTable));
    SweepAll(OfObject("wide", Supply("a"), Supply("b"), supply));
    SweepAll({OfObject("wide, escaped", Supply(""), Supply("\\\""), supply)[0]});
    SweepAll(OfObject("array", List(kOid, "1, 2, 3"), List(kOid, "1, 7, 3"), lists));
    std::vector<Work> joined = OfObject("joined", Setting(R"("a", "b")"), Setting(R"("c", "b")"), {"TblHII_Enum_Obj"});
    std::vector<Work> ofSqlite = OfObject("array", List(kOid, "1, 2"), List(kOid, "1, 7"), lists);
    // clang-format on
    for (Work &work : joined)
    {
        work.leavesOut = true;
    }
    joined[0].isOnce = true;
    SweepAll(joined);
    // SQLite may lack memory too, and tells by its statuses. What that costs a
    // row is up to the statement.
    for (Work &work : ofSqlite)
    {
        work.leavesOut = work.isOnce = true;
        EXPECT_GT(Sweep(work, Caller::Sqlite), 0);
    }
}

TEST_F(NoMemory, AttributesComeAndGoByTheBus)
{
    const auto put = []
    {
        PutKey("CfgEnumAttribute", "b");
    };
    const auto old = [=]
    {
        PutKey("CfgEnumAttribute", "a");
        OnLoadConfigObjectsCreation(kEnumInterface, nullptr);
        put();
    };
    put();
    const auto record = [](uint16_t kind)
    {
        return BusRecord(kind, kOid, standin::AttributePath(kKey),
                         kEnumInterface);
    };
    SweepAll(OfEvents("attribute", put, old, record, {"TblEnumAttribute"}));
}

TEST_F(NoMemory, StatusChangesReload)
{
    const auto forgetFru = []
    {
        ClearFRUCacheEntry(kOid);
        MakeRow(MakeObject(0x42, kOid));
    };
    const auto forgetTypes = []
    {
        standin::SetFault("ZOILListChildOIDByType", 0, 2);
        EXPECT_EQ(ObjTypeBasedNCObjects(), ZO_STATUS_NO_SUCH_OBJECT);
    };
    const auto seeSystem = []
    {
        Put(System("old"));
        MakeRow(System("old"));
        ReLoadKeyBasedNCObjects();
    };
    const auto seeAttribute = []
    {
        constexpr char kSeen[] =
            "Tarnu.Embedded.1#SerialCapture.1#SerialDataSize";
        PutKey("CfgIntAttribute", "old", kSeen);
        OnLoadConfigObjectsCreation(kIntInterface, nullptr);
        ReLoadCfgKeyBasedNCObjects();
        PutKey("CfgIntAttribute", "new", kSeen);
    };
    const auto reload = []
    {
        ReLoadCfgKeyBasedNCObjects();
    };
    // clang-format off
    SweepAll({
        OfReload("any", PutRow(Status(kOid, "a", 1)), Status(kOid, "b", 1), "TblDMStatus_Child_Obj"),
        OfReload("memory", PutRow(MakeObject(0xE1, kOid, R"({"Key": "A1"})")), MakeObject(0xE1, kOid, R"({"Key": "DIMM.A1"})"), "TblMemoryInfo"),
        OfReload("fru", forgetFru, MakeObject(0x42, kOid, R"({"Key": "Disk.Bay.1", "SerialNumber": "S"})"), "TblFRUObj"),
        OfReload("type", forgetTypes, MakeObject(0xEB, kOid, R"({"productName": "b"})"), "TblDevBLT"),
        OfReload("key", seeSystem, System("new"), "TblSystemInfo"),
        {"keyed attributes", seeAttribute, reload, {"TblIntAttribute"}, kNothing, true},
    });
    // clang-format on
}

TEST_F(NoMemory, WalksGoOnWithTheNextObject)
{
    constexpr uint16_t kJob = 0xA03;
    const Lines attributes = {"TblIntAttribute", "TblStrAttribute",
                              "TblEnumAttribute", "TblPasswdAttribute"};
    const auto put = []
    {
        Put(Status(kOid, "a", 1));
        Put(List(kOid + 1, "1, 2"));
        for (const char *interface : {"CfgIntAttribute", "CfgStrAttribute",
                                      "CfgEnumAttribute", "CfgPasswdAttribute"})
        {
            PutAttribute(interface, std::string("A.1#B.1#") + interface);
        }
    };
    const auto reload = []
    {
        EnterGateForOther();
        ReloadConfigObjectsThread(nullptr);
    };
    const auto putJob = []
    {
        Put(MakeObject(kJob, kOid));
    };
    const auto fail = []
    {
        const int index = QdbFailObjTypeIndex(kJob);
        for (int i = 0; i < 2; ++i) // the newest stays
        {
            QdbFailenQueue(gFailQueue, kOid, FailedOperation::Create, index);
        }
    };
    const auto check = []
    {
        CheckDMObjCountandReCreateEntries();
    };
    SweepAll({
        {"population", put, OnLoadObjectsCreation, attributes + kStatusTable},
        {"configuration", put, reload, attributes},
        {"drain", putJob, check, {"TblJobControlInfoObj"}, fail},
        {"count check", put, check, kStatusTable},
    });
}

TEST_F(NoMemory, RawDataIsImported)
{
    const std::string directory =
        mirror_.Root().Path() + "/mnt/persistent_data/data0/gen_certs/";
    std::filesystem::create_directories(directory);
    std::ofstream(directory + kKey) << "content";
    const Action old = PutRow(Attribute(kKey, kOid, TYPE_CFGSTR));
    const Bytes record =
        Record(ZO_EVENT_RAW_DATA_UPDATE, {24, 24 + sizeof(kKey)},
               std::string(kKey) + '\0' + directory + kKey + '\0');
    std::vector<Work> works = {
        OfWorker("event", old, record, {"TblStrAttribute"}),
        {"directory", old, OnLoadRawObjectsUpdate, {"TblStrAttribute"}},
    };
    for (Work &work : works)
    {
        work.leavesOut = true;
    }
    SweepAll(works);
}

TEST_F(NoMemory, TheListenerKeepsToTheDataManagersThread)
{
    const auto rows = []
    {
        MakeRow(Status(kOid, "a", 1));
        MakeRow(Status(kOid + 1, "b", 1));
        Put(MakeObject(0x900, kOid + 2));
        PutKey("CfgIntAttribute");
    };
    const auto forgetLines = []
    {
        CaptureLog();
    };
    // The configuration comes back on a thread of its own.
    const auto awaitReload = []
    {
        WaitForLog("Reload Config Objects - Completed!\n");
    };
    // clang-format off
    SweepAll({
        {"queues", kNothing, Listen(List(DATA_EVENT_DATA_OBJ_CREATE, Words{kOid}))},
        {"bunch", rows, Listen(List(DATA_EVENT_DATA_OBJ_DESTROY, Words{kOid, kOid + 1})), kStatusTable},
        {"detach", rows, Listen(Record(DATA_EVENT_DM_DETACHED, {})), {"TblIntAttribute", "TbllmRootDataObj"},
         forgetLines, false, false, awaitReload},
    });
    // clang-format on
}

// What runs inside of SQLite's step, or under the bus mutex, needs no memory.
TEST_F(NoMemory, HookAndSendersNeedNone)
{
    const auto hook = []
    {
        CloseTelemetryPipe();
        TelemetryUpdateHook(nullptr, SQLITE_INSERT, "main", "TblFanExtObj", 1);
    };
    const auto send = []
    {
        ChangeJsonChanged("{}");
    };
    EXPECT_EQ(Sweep({"no pipe", kNothing, hook}), 0);
    mirror_.Root().MakePipe();
    const PipeReader reader(mirror_.Root().Pipe());
    EXPECT_EQ(Sweep({"pipe", kNothing, hook}), 0);
    EXPECT_EQ(Sweep({"signal", kNothing, send}), 0);
}

// A signal for each of the handlers.
TEST_F(NoMemory, SignalsAreHeard)
{
    const BusSender sender;
    sdbusplus::bus_t bus = sdbusplus::bus::new_default_system();
    bool heard = false;
    std::vector<std::unique_ptr<sdbusplus::bus::match_t>> matches;
    for (const MatchRule &rule : MatchRules())
    {
        matches.push_back(std::make_unique<sdbusplus::bus::match_t>(
            bus, rule.rule,
            [&heard, handler = rule.handler](sdbusplus::message_t &message)
            {
                handler(message);
                heard = true;
            }));
    }
    const auto hear = [&]
    {
        for (heard = false; !heard;)
        {
            bus.process_discard();
            bus.wait(1000);
        }
    };
    const auto put = []
    {
        PutKey("CfgEnumAttribute");
    };
    // clang-format off
    const std::pair<const char *, Action> kSignals[] = {
        {"owner", [&] { sender.Own(kConfigService); sender.Disown(kConfigService); }},
        {"added", [&] { sender.Emit("/x", "a.b", "InterfacesAdded", "oa{sa{sv}}", "/x", 1, kIntInterface, 1, "oid", "u", 9); }},
        {"removed", [&] { sender.Emit("/x", kIntInterface, "qdb_object_removed", "us", 9, "x"); }},
        {"changed", [&] { sender.Emit("/x", "org.freedesktop.DBus.Properties", "PropertiesChanged", "sa{sv}as", kStrInterface, 0, 0); }},
        {"commit", [&] { sender.Emit("/x", kEnumInterface, "qdb_bulk_commit", ""); }},
        {"raw data", [&] { sender.Emit("/x", "a.b", "RawDataUpdated", "ss", "Key", "/file"); }},
    };
    // clang-format on
    for (const auto &[name, send] : kSignals)
    {
        SweepAll({{name, put, hear, {"TblEnumAttribute"}, send}});
    }
    // The thread itself ends when it can't begin.
    CaptureLog(2);
    tNoMemory = true;
    handle_sdbus_signal_Request_thread(nullptr);
    tNoMemory = false;
    EXPECT_EQ(LogLines(), Lines{"EX: std::bad_alloc\n"});
}

} // namespace
} // namespace qdb::test
