// Want of memory in every kind of work; see memory_sweep.h.

#include "busintake/match_rules.h"
#include "busintake/signal_thread.h"
#include "config/config_load.h"
#include "config/key_reload.h"
#include "config/raw_data.h"
#include "core/json.h"
#include "objects/json_text.h"
#include "publish/telemetry.h"
#include "reconcile/count_check.h"
#include "reconcile/population.h"
#include "tests/support/bus_sender.h"
#include "tests/support/config_bytes.h"
#include "tests/support/memory_sweep.h"

#include <filesystem>
#include <fstream>

namespace qdb::test
{
namespace
{

constexpr uint32_t kOid = kWorkOid;
constexpr char kKey[] = "A.1#B.1#C";
const Lines kStatusTable = {"TblDMStatus_Child_Obj"};

// A setting with two lists of texts.
Bytes Setting(const std::string &texts)
{
    return MakeObject(0x706, kOid,
                      R"({"possible_value_": [)" + texts +
                          R"(], "display_value_": [)" + texts + "]}");
}

Bytes Supply(const std::string &name)
{
    return MakeObject(0x15, kOid, R"({"boardProductName": ")" + name + R"("})");
}

// At every allocation of Jansson's, the token's that it reads included.
TEST(JsonText, IsParsedAsAWholeOrNotAtAll)
{
    const std::string text = R"({"name":[1234567890123456789,"short",)"
                             R"(12345678901234567.5,"thirty-one bytes of )"
                             R"(one string","a",98765432101234567,")" +
                             std::string(200, 'x') + R"(",true],"last":null})";
    int failed = 0;
    for (;; ++failed)
    {
        const NoMemoryAt fault(failed + 1);
        const JsonPtr parsed = ParseJson(text.c_str(), nullptr);
        if (!fault.HasFailed())
        {
            EXPECT_NE(parsed, nullptr);
            break;
        }
        EXPECT_EQ(parsed, nullptr);
    }
    EXPECT_GT(failed, 10);
}

TEST_F(NoMemory, WorkersGoOnWithTheNextRecord)
{
    const Lines supply = {"TblPowerSupplyObj"};
    const Lines settings = {"TblHII_Enum_Obj"};
    SweepAll(WorksOfWorkers());
    // Values that are told in other ways.
    // clang-format off
    SweepAll(OfObject("escaped", Status(kOid, "\\u0001", 1), Status(kOid, "\\u0002", 1), kStatusTable));
    SweepAll(OfObject("wide", Supply("a"), Supply("b"), supply));
    SweepAll({OfObject("wide, escaped", Supply(""), Supply("\\\""), supply)[0]});
    std::vector<Work> joined = OfObject("joined", Setting(R"("a", "b")"), Setting(R"("c", "b")"), settings);
    // clang-format on
    for (Work &work : joined)
    {
        work.leavesOut = true;
    }
    joined[0].isOnce = true;
    SweepAll(joined);
}

// SQLite tells by its statuses. What that costs a row is up to the statement.
TEST_F(NoMemory, SqliteMayLackItToo)
{
    for (Work &work :
         OfObject("array", List(kOid, "1, 2"), List(kOid, "1, 7"),
                  {"TblSoftwareInventoryMetaDataObject",
                   "INTEGERARR_TblSoftwareInventoryMetaDataObject"}))
    {
        work.leavesOut = work.isOnce = true;
        EXPECT_GT(Sweep(work, Caller::Sqlite), 0);
    }
}

TEST_F(NoMemory, WalksGoOnWithTheNextObject)
{
    constexpr uint16_t kJob = 0xA03;
    constexpr char kSeen[] = "Tarnu.Embedded.1#SerialCapture.1#SerialDataSize";
    const Work configuration = OfConfiguration();
    const auto put = [&]
    {
        Put(Status(kOid, "a", 1));
        Put(List(kOid + 1, "1, 2"));
        configuration.begin();
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
    const auto seeAttribute = [=]
    {
        PutAttribute("CfgIntAttribute", kSeen, kOid);
        OnLoadConfigObjectsCreation(kIntInterface, nullptr);
        ReLoadCfgKeyBasedNCObjects();
        const JsonPtr values(json_pack("{s:s}", "DisplayName", "new"));
        standin::PutAttribute("CfgIntAttribute", kSeen, values.get(), kOid);
    };
    const auto reload = []
    {
        ReLoadCfgKeyBasedNCObjects();
    };
    SweepAll({
        configuration,
        {"population", put, OnLoadObjectsCreation,
         configuration.tables + kStatusTable},
        {"drain", putJob, check, {"TblJobControlInfoObj"}, fail},
        {"count check", put, check, kStatusTable},
        {"keyed attributes",
         seeAttribute,
         reload,
         {"TblIntAttribute"},
         kNothing,
         true},
    });
}

TEST_F(NoMemory, RawDataIsImported)
{
    const std::string directory =
        mirror_.Root().Path() + "/mnt/persistent_data/data0/gen_certs/";
    std::filesystem::create_directories(directory);
    std::ofstream(directory + kKey) << "content";
    const auto old = []
    {
        MakeRow(Attribute(kKey, kOid, TYPE_CFGSTR));
    };
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

Action Listen(const Bytes &record)
{
    // Needs no memory itself.
    return [record = Bytes(record)]() mutable
    {
        QDVEventListener(reinterpret_cast<DataEventHeader *>(record.data()));
    };
}

TEST_F(NoMemory, TheListenerKeepsToTheDataManagersThread)
{
    const auto rows = []
    {
        MakeRow(Status(kOid, "a", 1));
        MakeRow(Status(kOid + 1, "b", 1));
        Put(MakeObject(0x900, kOid + 2));
        PutAttribute("CfgIntAttribute", kKey, kOid);
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
        heard = false;
        while (!heard)
        {
            bus.process_discard();
            bus.wait(1000);
        }
    };
    const auto put = []
    {
        PutAttribute("CfgEnumAttribute", kKey, kOid);
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
