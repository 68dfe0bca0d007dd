// One fixed workload over the whole catalogue, and all that the service makes
// visible in its course: results, signals, telemetry records, sleeps, kept
// failures, rows, log lines.
//
// The stream is compared with the one in tests/data/stream.txt, so that work
// on the inside, above all for speed, shows every change of what comes out.
// QDB_TEST_RECORD=1 writes that file anew, and its differences are then to be
// read line by line. QDB_TEST_STREAM=FILE writes the stream with nothing cut,
// to compare two builds where the recording has only a hash.
//
// All is done from this thread, and SQLite's clock is the test's own, so that
// the stream is one sequence, the same in every run.

#include "core/json.h"
#include "events/bus_dispatch.h"
#include "events/dispatch.h"
#include "events/listener.h"
#include "reconcile/population.h"
#include "tests/stream_steps.h"
#include "tests/support/config_bytes.h"
#include "tests/support/handler_fixture.h"
#include "tests/support/row_values.h"
#include "tests/support/stream_clock.h"
#include "tests/support/stream_driver.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace qdb::test
{
namespace
{

constexpr char kComment[] =
    "# What the service makes visible in the course of the workload in\n"
    "# tests/stream_test.cpp. Written by QDB_TEST_RECORD=1.\n"
    "#\n"
    "# == an operation, then what came of it: its result, signals, telemetry\n"
    "# records, and the tables afterwards. \"log\" names the log lines, each\n"
    "# with its level; they stand behind the first operation that had them.\n"
    "# What is cut off tells its length and its hash.\n";

// Seconds. What changes at kThen has the tag of its create.
constexpr int64_t kThen = 1111111111;
constexpr int64_t kNow = 2222222222;
constexpr int64_t kLater = 3333333333;

// What happens to one object.
struct Step
{
    const char *name;
    uint16_t kind;                // of the event
    const char *values = nullptr; // that its object gets first; NULL: none
    Faults faults = {};
    Bytes (*patch)(Bytes object) = nullptr; // of its object, behind the values
    Words parents = {kParentOid};           // of a new or patched object
    const char *sql = nullptr; // another process's work on the tables before
};

struct Story
{
    const char *suffix; // of the object's row
    std::vector<Step> steps;
};

// Question marks as bytes that no UTF-8 has.
Bytes Garble(Bytes object)
{
    std::ranges::replace(object, '?', 0xFF);
    return object;
}

// The offset of the text at 0x18 points outside.
Bytes Break(Bytes object)
{
    object.at(0x19) = 0x20;
    return object;
}

// The dependency list's offset has bits that the service takes away.
Bytes Displace(Bytes object)
{
    object.at(0x4D) |= 0x10;
    return object;
}

Bytes AsItIs(Bytes object)
{
    return object;
}

const std::string kReader = "SELECT json_object(";
const std::string kRow = "INTO TblDMStatus_Child_Obj";
const std::string kUpdate = "UPDATE TblDMStatus_Child_Obj";
const std::string kElements = "SELECT json_object('ARR_INDEX'";
const std::string kRemove = "DELETE FROM ActiveOIDMapping";
constexpr char kUnmap[] = "DELETE FROM ActiveOIDMapping";

const Faults kMappingBusy = {{{kMapping, {5, kForever}}}, {}};
const Faults kMappingBusyAtFirst = {{{kMapping, {5, 100}}}, {}};

// The first reading of a handler, and the second.
Faults Unread(int status)
{
    return Failing(kReader, status, 1);
}

Faults UnreadAgain(int status)
{
    return {{{kReader, {status, 1}}}, {}, 1};
}

const Story kStories[] = {
    // clang-format off
    {"1001", {
        {"text to escape", kCreate, R"({"key": "\"hi\" \\ it's\t\n\u0001\u007F</", "popStatus": 1})"},
        {"text beyond ASCII", kDirty, R"({"key": "\u00E5\u6F22\uD83D\uDE00\u2028"})"},
        {"same text", kDirty, R"({"key": "\u00E5\u6F22\uD83D\uDE00\u2028"})"},
        {"noncharacter", kDirty, R"({"key": "\uFFFF"})"},
        {"empty text", kDirty, R"({"key": ""})"},
        {"invalid UTF-8", kDirty, R"({"popName": "caf?"})", {}, Garble},
        {"behind invalid UTF-8", kDirty, R"({"popName": "cafe"})"},
        {"destroy invalid UTF-8", kDestroy},
    }},
    {"1001", {
        {"create with invalid UTF-8", kCreate, R"({"popName": "caf?"})", {}, Garble},
        {"two parents", kCreate, "{}", {}, AsItIs, {kParentOid, kOtherParentOid}, "DELETE FROM ActiveOIDMapping"},
        {"no parent", kCreate, "{}", {}, AsItIs, {}, "DELETE FROM ActiveOIDMapping"},
        {"parent that is gone", kCreate, "{}", {}, AsItIs, {0x5FF}, "DELETE FROM ActiveOIDMapping"},
        {"parent behind one that is gone", kCreate, "{}", {}, AsItIs, {0x5FF, kParentOid}, "DELETE FROM ActiveOIDMapping"},
        {"destroy", kDestroy},
        {"destroy what isn't mapped", kDestroy},
    }},
    {"15", {
        {"single reals in a wide row", kCreate, R"({"instAmps": 0.1, "DynamicinputWatts": -0.0, "DynamicoutputWatts": 3.4028234663852886e38, "EfficiencyPercent": 1e-45})"},
        {"next single real", kDirty, R"({"instAmps": 0.10000001, "DynamicinputWatts": 0.0, "EfficiencyPercent": 100.0})"},
        {"invalid UTF-8", kDirty, R"({"fwVer": "caf?"})", {}, Garble},
    }},
    {"221", {
        {"reals", kCreate, R"({"DMMAUtilization": -0.0, "DRAMUsage": 5e-324, "HMMAUtilization": 0.1, "IMMAUtilization": 100.0, "PCIeRxBandwidth": 1e15, "PCIeTxBandwidth": 1e17, "PrimaryGpuTempExtendedPrecision": 36.6, "SMActivity": 123456789.12345678, "SMOccupancy": -1e-7, "TensorCoreActivity": 9007199254740993.0})"},
        {"other reals", kDirty, R"({"DMMAUtilization": 0.0, "DRAMUsage": 2.2250738585072014e-308, "HMMAUtilization": 0.2, "IMMAUtilization": -100, "PCIeRxBandwidth": 1e16, "PCIeTxBandwidth": 1e300})"},
        {"beyond 15 digits", kDirty, R"({"SMActivity": 123456789.12345679})"},
        {"real above what is read back", kDirty, R"({"SMActivity": 1.7976931348623157e308})"},
        {"behind that real", kDirty, R"({"SMActivity": 1.5})"},
    }},
    {"E1", {
        {"greatest integers", kCreate, R"({"CacheSize": "0xFFFFFFFFFFFFFFFF", "LogicalSize": 9223372036854775807, "NonVolatizeSize": "0x8000000000000000", "UpdateTime": -2147483648, "Capacity": 4294967295, "DataWidth": 65535, "CanBeFRUed": 255})"},
        {"next to them", kDirty, R"({"CacheSize": "0xFFFFFFFFFFFFFFFE", "LogicalSize": 9223372036854775806, "NonVolatizeSize": "0x8000000000000001", "UpdateTime": 2147483647, "Capacity": 2147483648, "DataWidth": 32768, "CanBeFRUed": 0})"},
        {"broken object", kRefreshOnce, nullptr, {}, Break},
        {"destroy", kDestroy},
        {"create of a broken object", kCreateOnce},
    }},
    {"31B_RAID_PDSmartData_NVMe", {
        {"integers beyond 32 bits", kCreate, R"({"protocol": 64, "smartData_DOT_BadFlashBlock": 4294967296, "lastUpdatedDateTime": 2147483648})"},
        {"difference above them", kDirty, R"({"smartData_DOT_BadFlashBlock": 8589934592})"},
        {"difference in both", kDirty, R"({"smartData_DOT_BadFlashBlock": "0xFFFFFFFFFFFFFFFF"})"},
    }},
    {"31B_RAID_PDSmartData_SAS_SATA", {
        {"create of a hard disk", kCreate, R"({"protocol": 32})"},
        {"one that becomes another", kDirty, R"({"attributes": 2})"},
    }},
    {"45_EmptySlotObj", {
        {"create", kCreate, R"({"slotType": 1})"},
        {"create as the other kind", kCreate, nullptr, {}, [](Bytes object) { object.at(0x1C) = 7; return object; }},
        {"destroy", kDestroy},
    }},
    {"801", {
        {"array", kCreate, R"({"ObjTypeList": [1, 2, 3]})"},
        {"longer array", kDirty, R"({"ObjTypeList": [1, 2, 3, 4, 5]})"},
        {"one element", kDirty, R"({"ObjTypeList": [1, 9, 3, 4, 5]})"},
        {"shorter array", kDirty, R"({"ObjTypeList": [7]})"},
        {"no element", kDirty, R"({"ObjTypeList": []})"},
        {"element that isn't stored", kDirty, R"({"ObjTypeList": [1, 2, 3]})", Failing("INTO INTEGERARR_TblSoftware", 1, 1)},
        {"array that isn't read", kDirty, R"({"ObjTypeList": [4]})", Failing("SELECT json_object('ARR_INDEX'", 1, 1)},
        {"destroy", kDestroy},
        {"empty array", kCreate, R"({"ObjTypeList": []})"},
        {"first elements", kDirty, R"({"ObjTypeList": [1]})"},
    }},
    {"1200", {
        {"lists", kCreate, R"({"IpV4Address": [{"ipAddr": "192.0.2.1", "subnetMask": "255.255.255.0"}], "IpV6Address": [{"ipAddr": "2001:db8::1", "prefixLen": 64, "scope": 2}], "DNSServer": ["192.0.2.2", "2001:db8::2"], "GatewayAddress": ["/5?"], "RootObjectKey": "root"})"},
        {"other lists", kDirty, R"({"IpV4Address": [{"ipAddr": "192.0.2.1"}, {"ipAddr": "192.0.2.3"}], "IpV6Address": [], "DNSServer": ["2001:db8::2"], "GatewayAddress": ["192.0.2.4"], "PhysicalNetworkFQDDs": ["a", "b", "c"], "RootObjectKey": "other"})"},
        {"without lists", kDirty, R"({"IpV4Address": [], "DNSServer": [], "GatewayAddress": [], "PhysicalNetworkFQDDs": []})"},
    }},
    {"706", {
        {"nothing given", kCreate, "{}"},
        {"lists", kDirty, R"({"metadata_DOT_attrDependencies": "dep", "possible_value_": ["a", "bb"], "display_value_": ["A", "BB"]})"},
        {"displaced dependencies", kDirty, R"({"metadata_DOT_attrDependencies": "dependencies"})", {}, Displace},
    }},
    {"304", {
        {"parent", kCreate, "{}"},
        {"other parents", kDirty, nullptr, {}, AsItIs, {kParentOid, kOtherParentOid}},
        {"no parents", kDirty, nullptr, Unprepared("UPDATE TblRAID_PhysicalDisk", 1), nullptr, {}, "DELETE FROM ParentChildMapping"},
        {"no parents, corrupt", kDirty, nullptr, Unprepared("UPDATE TblRAID_PhysicalDisk", 11), nullptr, {}, "DELETE FROM ParentChildMapping"},
    }},
    {"4052", {
        {"from the bus", kCreate, R"({"CurrentValue": "bus"})"},
        {"guarded", kDirty, R"({"CurrentValue": "bus again"})", {}, nullptr, {}, "UPDATE TblStrAttribute SET isRawData = 1, CurrentValue = 'file'"},
        {"no longer guarded", kDirty, nullptr, {}, nullptr, {}, "UPDATE TblStrAttribute SET isRawData = 0"},
        {"busy", kDirty, R"({"CurrentValue": "third"})", Failing("UPDATE TblStrAttribute", 5, 3)},
        {"destroy", kDestroy},
        {"destroy again", kDestroy},
    }},
    {"A03", {
        {"create", kCreate, R"({"jobInfo_DOT_Name": "job"})"},
        {"second attempt", kDirty, R"({"jobInfo_DOT_percentComplete": 50})", Failing("UPDATE TblJobControlInfoObj", 1, 1)},
        {"both attempts fail", kDirty, R"({"jobInfo_DOT_percentComplete": 60})", Failing("UPDATE TblJobControlInfoObj", 1, 2)},
        {"corrupt", kDirty, nullptr, Failing("UPDATE TblJobControlInfoObj", 11, 2)},
        {"not read at first", kDirty, nullptr, Unread(1)},
        {"not read again", kDirty, nullptr, UnreadAgain(1)},
        {"busy for ever", kDirty, nullptr, Failing("UPDATE TblJobControlInfoObj", 6, kForever)},
    }},
    {"E6", {
        {"mapping busy", kCreate, R"({"Key": "k"})", kMappingBusy},
        {"mapping busy at first", kCreate, nullptr, kMappingBusyAtFirst},
        {"not deleted", kDestroy, nullptr, Failing("DELETE FROM ActiveOIDMapping", 1, kForever)},
        {"delete not read", kDestroy, nullptr, Unread(1)},
        {"destroy", kDestroy},
        {"second attempt", kCreate, nullptr, Failing("INTO TblDevPCI", 1, 1)},
        {"both attempts fail", kCreate, nullptr, Failing("INTO TblDevPCI", 1, 2), nullptr, {}, "DELETE FROM ActiveOIDMapping"},
        {"mapped without a row", kCreate},
        {"tag fails", kCreate, nullptr, Failing("UPDATE TblEtag", 1, kForever), nullptr, {}, "DELETE FROM ActiveOIDMapping"},
        {"not read", kCreate, nullptr, Unread(1), nullptr, {}, "DELETE FROM ActiveOIDMapping"},
        {"link fails", kCreate, nullptr, Failing("ParentChildMapping", 1, kForever), nullptr, {}, "DELETE FROM ActiveOIDMapping"},
    }},
    // Each finds nothing; what fails in one step must not meet the next.
    {"1001", {
        {"create", kCreateOnce, "{}"},
        {.name = "insert unprepared", .kind = kCreateOnce, .faults = Unprepared(kRow, 1), .sql = kUnmap},
        {.name = "insert unprepared, corrupt", .kind = kCreateOnce, .faults = Unprepared(kRow, 11), .sql = kUnmap},
        {.name = "mapping unprepared", .kind = kCreateOnce, .faults = Unprepared(kMapping, 1), .sql = kUnmap},
        {.name = "mapping unprepared, corrupt", .kind = kCreateOnce, .faults = Unprepared(kMapping, 11), .sql = kUnmap},
        {.name = "mapping fails", .kind = kCreateOnce, .faults = Failing(kMapping, 1, 1), .sql = kUnmap},
        {.name = "mapping corrupt", .kind = kCreateOnce, .faults = Failing(kMapping, 11, 1), .sql = kUnmap},
        {.name = "mapping busy, then broken", .kind = kCreateOnce, .faults = Failing(kMapping, {6, 100}, {1, 1}), .sql = kUnmap},
        {.name = "mapping busy, then corrupt", .kind = kCreateOnce, .faults = Failing(kMapping, {6, 100}, {11, 1}), .sql = kUnmap},
        {.name = "mapping busy twice", .kind = kCreateOnce, .faults = Failing(kMapping, 6, 200), .sql = kUnmap},
        {.name = "insert corrupt once", .kind = kCreateOnce, .faults = Failing(kRow, 11, 1), .sql = kUnmap},
        {.name = "insert corrupt at last", .kind = kCreateOnce, .faults = Failing(kRow, {1, 1}, {11, 1}), .sql = kUnmap},
        {.name = "insert corrupt at first", .kind = kCreateOnce, .faults = Failing(kRow, {11, 1}, {1, 1}), .sql = kUnmap},
        {.name = "insert busy 199 times", .kind = kCreateOnce, .faults = Failing(kRow, 5, 199), .sql = kUnmap},
        {.name = "insert busy 200 times", .kind = kCreateOnce, .faults = Failing(kRow, 5, 200), .sql = kUnmap},
        {.name = "row gone", .kind = kCreateOnce, .faults = Unread(101), .sql = kUnmap},
        {.name = "row corrupt", .kind = kCreateOnce, .faults = Unread(11), .sql = kUnmap},
        {.name = "reader unprepared", .kind = kCreateOnce, .faults = Unprepared(kReader, 1), .sql = kUnmap},
        {.name = "reader unprepared, corrupt", .kind = kCreateOnce, .faults = Unprepared(kReader, 11), .sql = kUnmap},
        {.name = "tag unprepared", .kind = kCreateOnce, .faults = Unprepared("TblEtag", 11), .sql = kUnmap},
        {.name = "create at last", .kind = kCreateOnce, .sql = kUnmap},
    }},
    {"1001", {
        {"create", kCreate, R"({"popStatus": 1})"},
        {"update unprepared", kRefreshOnce, R"({"popStatus": 2})", Unprepared(kUpdate, 1)},
        {"update unprepared, busy", kRefreshOnce, nullptr, Unprepared(kUpdate, 5)},
        {"update unprepared, corrupt", kRefreshOnce, nullptr, Unprepared(kUpdate, 11)},
        {"update unprepared, no row", kRefreshOnce, nullptr, {{{kReader, {101, 1}}}, {{kUpdate, {1, 1}}}}},
        {"read busy", kRefreshOnce, nullptr, Unread(5)},
        {"read corrupt", kRefreshOnce, nullptr, Unread(11)},
        {"no row", kRefreshOnce, nullptr, Unread(101)},
        {"update corrupt once", kRefreshOnce, nullptr, Failing(kUpdate, 11, 1)},
        {"update corrupt at last", kRefreshOnce, R"({"popStatus": 3})", Failing(kUpdate, {1, 1}, {11, 1})},
        {"second reading corrupt", kRefreshOnce, nullptr, UnreadAgain(11)},
        {"row gone meanwhile", kRefreshOnce, R"({"popStatus": 4})", UnreadAgain(101)},
        {"refresh at last", kRefreshOnce, R"({"popStatus": 5})"},
        {"delete unprepared", kDestroy, nullptr, Unprepared(kRemove, 1)},
        {"delete unprepared, corrupt", kDestroy, nullptr, Unprepared(kRemove, 11)},
        {"delete corrupt at last", kDestroy, nullptr, Failing(kRemove, {1, 1}, {11, 1})},
        {"delete busy 200 times", kDestroy, nullptr, Failing(kRemove, 5, 200)},
        {"delete reads corrupt", kDestroy, nullptr, Unread(11)},
        {.name = "delete without a row", .kind = kDestroy, .sql = "DELETE FROM TblDMStatus_Child_Obj"},
    }},
    {"801", {
        {"elements unprepared", kCreateOnce, R"({"ObjTypeList": [7, 8]})", Unprepared("INTO INTEGERARR", 1)},
        {.name = "elements unread", .kind = kCreateOnce, .faults = Failing(kElements, 1, 1), .sql = kUnmap},
        {.name = "elements corrupt", .kind = kCreateOnce, .faults = Unprepared(kElements, 11), .sql = kUnmap},
        {"delete reads no elements", kDestroy, nullptr, Failing(kElements, 1, 1)},
        {"destroy", kDestroy},
    }},
    // clang-format on
};

JsonPtr Parse(const std::string &values)
{
    JsonPtr parsed(json_loads(values.c_str(), 0, nullptr));
    EXPECT_NE(parsed, nullptr) << values;
    return parsed;
}

class StreamTest : public ::testing::Test
{
  protected:
    StreamTest() : mirror_({.pipe = true}), recorder_(mirror_.Root())
    {
        Restart(0);
        DbusEventsEnabled = 1;
        PutParents();
    }
    ~StreamTest() override
    {
        ClearSqliteFaults();
        RestoreSleeps();
    }

    void Event(const std::string &name, const Subject &subject, uint16_t kind)
    {
        recorder_.Record(name, subject,
                         [&]
                         {
                             return Notify(subject, kind);
                         });
    }

    // What the next object must not find.
    void CleanUp(const Subject &subject)
    {
        Remove(subject);
        mirror_.Rows("DELETE FROM ActiveOIDMapping;"
                     "UPDATE TblEtag SET MultiRecordEtag = NULL");
    }

    void Sweep(const ObjTypeRow &row, uint32_t oid)
    {
        static const std::set<std::string> kWhole = {
            "1001", "4051", "45_EmptySlotObj", "706", "801"};
        recorder_.KeepWhole(kWhole.contains(row.suffix));
        const Subject subject = {&row, oid};
        clock_.Set(kThen);
        Put(subject, ValuesFor(row, ValueSet::First).get());
        Event("create", subject, kCreate);
        Put(subject, ValuesFor(row, ValueSet::Second).get());
        Event("change", subject, kDirty);
        clock_.Set(kNow);
        Event("refresh", subject, kDirty);
        if (!IsConfigType(row.objType))
        {
            recorder_.Record("status change", subject,
                             [&]
                             {
                                 return NotifyStatus(subject);
                             });
        }
        clock_.Set(kLater);
        Put(subject, ValuesFor(row, ValueSet::First).get());
        Event("change back", subject, kDirty);
        Event("create again", subject, kCreate);
        Event("destroy", subject, kDestroy);
        Event("refresh without a row", subject, kDirty);
        CleanUp(subject);
    }

    void Take(const Step &step, const Subject &subject)
    {
        if (step.values != nullptr)
        {
            Put(subject, Parse(step.values).get(), step.parents);
        }
        if (step.patch != nullptr)
        {
            EXPECT_EQ(standin::PutRawObject(
                          step.patch(standin::ObjectBytes(subject.oid)),
                          step.parents),
                      "");
        }
        if (step.sql != nullptr)
        {
            mirror_.Rows(step.sql);
        }
        if (!step.faults.prepares.empty())
        {
            ForgetStatements();
        }
        step.faults.Arm();
        Event(step.name, subject, step.kind);
        ClearSqliteFaults();
    }

    void Tell(const Story &story, uint32_t oid)
    {
        const ObjTypeRow &row = *std::ranges::find(
            ObjectTypeTable, std::string(story.suffix), &ObjTypeRow::suffix);
        const Subject subject = {&row, oid};
        FinalizeHandlerStatements();
        FinalizeMappingStatements();
        recorder_.KeepWhole(true);
        clock_.Set(kThen);
        for (const Step &step : story.steps)
        {
            Take(step, subject);
            clock_.Set(kNow);
        }
        CleanUp(subject);
    }

    // Records that are odd, or are about more than one object.
    void TellRecords()
    {
        PutObject(kStatus, 0x11, R"({"popName": "first"})");
        PutObject(kStatus, 0x13, R"({"popName": "last"})");
        const Words oids = {0x11, 0x12, 0x13};
        PutAttribute("CfgEnumAttribute", kAttributeKey, 0x14);
        const std::string path = standin::AttributePath(kAttributeKey);
        const std::string enums = "com.vexo.tarnu.Config.CfgEnumAttribute";
        const struct
        {
            const char *name;
            Bytes record;
        } kRecords[] = {
            {"create of three", List(kCreate, oids)},
            {"refresh of three", List(kDirty, oids)},
            {"destroy of three", List(kDestroy, oids)},
            {"too many", List(kDirty, Words(4001))},
            {"count beyond the record", Record(kDirty, {2, 0x11})},
            {"attribute", BusRecord(kCreate, 0x14, path, enums)},
            {"unknown interface", BusRecord(kDirty, 0x14, path, enums + "s")},
            {"unknown kind", BusRecord(4, 0x14, path, enums)},
            {"no attribute", BusRecord(kDirty, 0x14, path + "x", enums)},
            {"attribute of another interface",
             BusRecord(kDirty, 0x14, path, kIntInterface)},
            {"no path", Record(65533, {kDirty, 0x14, 0, 0})},
            {"configuration manager restarted", Record(65533, {23, 0, 0, 0})},
        };
        for (const auto &[name, record] : kRecords)
        {
            recorder_.RecordAll(
                name,
                [&]
                {
                    const DataEventHeader *event = EventOf(record);
                    return event->evtType == 65533
                               ? ObjectNotificationDbus(event, event->evtType)
                               : ObjectNotification(event, event->evtType);
                });
        }
        EXPECT_EQ(standin::DeleteObjects(Words{0x11, 0x13}, false), "");
    }

    // Everything from the start, then gone again.
    void TellPopulationAndDetach()
    {
        PutObject(0x900, 0x21);
        PutObject(0x801, 0x22, R"({"ObjTypeList": [1, 2]})");
        PutObject(0x31B, 0x23, R"({"protocol": 64})");
        PutObject(0x31B, 0x24, R"({"protocol": 32})");
        PutObject(0x45, 0x25, R"({"slotType": 7})");
        PutAttribute("CfgPasswdAttribute", "Test.1#Group.1#Other", 0x26);
        const Words parents = {0x5FF, kParentOid};
        EXPECT_EQ(standin::PutRawObject(MakeObject(kStatus, 0x27), parents),
                  "");
        DbusEventsEnabled = 0;
        recorder_.RecordAll("population", OnLoadObjectsCreation);
        DbusEventsEnabled = 1;
        recorder_.RecordAll(
            "detach",
            []
            {
                Bytes record = Record(12, {});
                const int result = QDVEventListener(
                    reinterpret_cast<DataEventHeader *>(record.data()));
                EXPECT_TRUE(WaitUntil(
                    []
                    {
                        return CountLog("Reload Config Objects - Completed!") >
                               0;
                    }));
                return result;
            });
    }

    void TellWideSteps()
    {
        static const std::set<uint32_t> kTypes = {
            0xE1, 0x36,   0x42, 0x91,  0x4051, 0x4052, 0xEB,
            0xEC, 0x1001, 0x1B, 0x220, 0x40,   0xA03,  0x31B};
        recorder_.KeepWhole(false);
        for (const WideStep &step : WideSteps())
        {
            if (step.afresh)
            {
                standin::Reset();
                PutObject(0x1100, kParentOid);
                PutObject(0x1100, kOtherParentOid);
                mirror_.Rows("DELETE FROM ActiveOIDMapping;"
                             "UPDATE TblEtag SET MultiRecordEtag = NULL");
            }
            DbusEventsEnabled = 0;
            step.prepare();
            DbusEventsEnabled = 1;
            if (step.sql != nullptr)
            {
                mirror_.Rows(step.sql);
            }
            if (!step.faults.prepares.empty())
            {
                ForgetStatements();
            }
            if (step.lost != nullptr)
            {
                standin::SetFault(step.lost, 5, 1, step.lostAfter);
            }
            recorder_.Forget();
            step.faults.Arm();
            recorder_.RecordAll(std::string("step: ") + step.name, step.act,
                                kTypes);
            ClearSqliteFaults();
        }
    }

    // Writes the recording, or tells how it differs.
    void Compare()
    {
        const char *root = std::getenv("QDB_TEST_SOURCE");
        ASSERT_NE(root, nullptr) << "QDB_TEST_SOURCE: the source folder";
        const std::string path = std::string(root) + "/tests/data/stream.txt";
        const Stream &stream = recorder_.Recorded();
        if (const char *full = std::getenv("QDB_TEST_STREAM"))
        {
            std::ofstream(full) << RenderStream(stream, kComment, true);
        }
        if (std::getenv("QDB_TEST_RECORD") != nullptr)
        {
            std::ofstream out(path, std::ios::trunc);
            out << RenderStream(stream, kComment);
            ASSERT_TRUE(out.flush()) << "can't write " << path;
            return;
        }
        std::ifstream in(path);
        ASSERT_TRUE(in) << "can't read " << path;
        std::ostringstream text;
        text << in.rdbuf();
        const std::string differences =
            Differences(text.str(), RenderStream(stream, kComment));
        EXPECT_TRUE(differences.empty()) << path << ":\n" << differences;
    }

    StreamClock clock_;
    Mirror mirror_;
    StreamRecorder recorder_;
};

TEST_F(StreamTest, IsTheRecordedOne)
{
    uint32_t index = 0;
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        // OIDs on both sides of the sign.
        Sweep(row, (index % 2 == 0 ? 0x5A000000u : 0xA5000000u) + index);
        ++index;
    }
    for (const Story &story : kStories)
    {
        Tell(story, 0xCA000000u + index++);
    }
    TellRecords();
    TellPopulationAndDetach();
    TellWideSteps();
    Compare();
}

} // namespace
} // namespace qdb::test
