// The stand-in platform as its users see it: values that it refuses, and the
// control socket of a process of its own. What else it does all tests of the
// service stand on.
#include "core/json.h"
#include "platform/cfgclient.h"
#include "platform/vexolog.h"
#include "platform/zo_base.h"
#include "platform/zoil.h"
#include "standin/object_builder.h"
#include "standin/standin.h"
#include "tests/support/service_process.h"
#include "tests/support/temp_root.h"
#include "tests/support/text.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace
{

using qdb::test::CommandAt;

TEST(Standin, RefusesValuesThatDoNotFit)
{
    const std::string longText(4659, 'x'); // what follows begins at 5001
    // clang-format off
    const struct
    {
        uint16_t type;
        std::string values;
        const char *reason;
    } cases[] = {
        {0xE1, R"({"Sped":1})", "TblMemoryInfo.Sped: there is no such column"},
        {0xE1, R"({"Sped":null})", "TblMemoryInfo.Sped: there is no such column"},
        {0xE1, R"({"OID":1})", "can't be set"},
        {0xE1, R"({"ParentObjectKey":"x"})", "can't be set"},
        {0xE1, R"({"Rank":256})", "an unsigned integer of 8 bits"},
        {0xE1, R"({"Rank":-1})", "an unsigned integer of 8 bits"},
        {0xE1, R"({"Rank":"0x1x"})", "an unsigned integer of 8 bits"},
        {0xE1, R"({"UpdateTime":2147483648})", "a signed integer of 32 bits"},
        {0xE1, R"({"fqdd":7})", "wants a text"},
        {0xE1, R"({"BankLabel":"long"})", "there is room for 3"},
        {0xE1, R"({"Key":")" + std::string(64, 'k') + "\"}", "room for 63"},
        {0xE1, R"({"fqdd":")" + longText + R"(","friendlyFQDD":"y"})", "nothing may begin behind 5000"},
        {0x221, R"({"DRAMUsage":"much"})", "wants a number"},
        {0x221, R"({"PrimaryGpuTempExtendedPrecision":1e39})", "single precision"},
        {0x5D, R"({"HealthStatusArray":[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]})", "at most 20 elements"},
        {0x5D, R"({"HealthStatusArray":[300]})", "8 bits"},
        {0x41, R"({"tempDataLastDay":[7]})", "wants an array of objects"},
        {0x41, R"({"tempDataLastDay":[{"mean":7}]})", "elements have no mean"},
        {0x706, R"({"possible_value_":["a"],"display_value_":["b","c"]})", "differ in length"},
        {0x706, R"({"possible_value_":["abc"],"entry_size":2})", "doesn't fit its cell"},
        {0x1200, R"({"NetIntf":"x"})", "the object has no such field"},
        {0x1200, R"({"DNSServer":"192.0.2.1"})", "wants an array of texts"},
        {0x9999, "{}", "no table holds objects of type 0x9999"},
        {0xE1, "[]", "aren't a JSON object"},
    };
    // clang-format on
    for (const auto &refused : cases)
    {
        SCOPED_TRACE(refused.values.substr(0, 80));
        const qdb::JsonPtr values(
            json_loads(refused.values.c_str(), 0, nullptr));
        ASSERT_NE(values, nullptr);
        std::string error;
        EXPECT_TRUE(standin::BuildObject({.type = refused.type, .oid = 7},
                                         values.get(), &error)
                        .empty());
        EXPECT_NE(error.find(refused.reason), std::string::npos) << error;
    }
}

// --- Delays and costs ------------------------------------------------------

constexpr uint32_t kFan = 0x7001;
constexpr uint32_t kOther = 0x7002;

std::vector<std::vector<uint32_t>> gHeard; // OIDs of records

int Hear(DataEventHeader *record)
{
    const auto *words = reinterpret_cast<const uint32_t *>(record);
    gHeard.emplace_back(words + 5, words + 5 + words[4]);
    return 0;
}

TEST(Standin, AnnouncesObjectsOneByOneWhenEachIsDue)
{
    standin::Reset();
    const std::vector<uint32_t> oids = {7, 8, 9};
    std::vector<int64_t> times;
    ASSERT_EQ(ZOILAddEventListener(Hear), 0);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(standin::AnnounceAtRate(3, oids, 100, &times), "");
    EXPECT_EQ(gHeard, (std::vector<std::vector<uint32_t>>{{7}, {8}, {9}}));
    ASSERT_EQ(times.size(), oids.size());
    for (size_t i = 0; i < oids.size(); ++i)
    {
        const std::chrono::nanoseconds due = std::chrono::milliseconds(10) * i;
        EXPECT_GE(times[i], (begin + due).time_since_epoch().count());
    }
    EXPECT_EQ(ZOILRemoveEventListener(Hear), 0);
}

class StandinDelays : public testing::Test
{
  protected:
    void SetUp() override
    {
        for (const uint32_t oid : {kFan, kOther})
        {
            ASSERT_EQ(standin::CreateObject({.type = 0x16, .oid = oid}, false),
                      "");
        }
    }

    void TearDown() override
    {
        standin::Reset();
        standin::SetLog(0, nullptr);
    }

    // Its status as ZOILGetObjByOID tells it.
    static int StatusOf(uint32_t oid)
    {
        DataObjHeader *object = ZOILGetObjByOID(&oid);
        const int status = object == nullptr ? -1 : object->objStatus;
        ZOILFreeGeneric(object);
        return status;
    }

    static void WaitForHanging(const std::string &call, int count)
    {
        EXPECT_TRUE(qdb::test::WaitUntil(
            [&]
            {
                return standin::HangingCalls(call) == count;
            }))
            << call << ": " << standin::HangingCalls(call);
    }
};

TEST_F(StandinDelays, AnswersAreTakenBeforeOrBehindTheSleep)
{
    for (const bool late : {false, true})
    {
        ASSERT_EQ(standin::SetStatus(kFan, 1, false), "");
        ASSERT_EQ(standin::SetDelay(
                      "ZOILGetObjByOID",
                      {.microseconds = 1, .late = !late, .oid = kOther}),
                  "");
        ASSERT_EQ(standin::SetDelay("ZOILGetObjByOID",
                                    {.microseconds = standin::kHang,
                                     .late = late,
                                     .oid = kFan,
                                     .skip = 1,
                                     .times = 1}),
                  "");
        EXPECT_EQ(StatusOf(kFan), 1); // skipped
        int answer = 0;
        std::thread caller(
            [&]
            {
                answer = StatusOf(kFan);
            });
        WaitForHanging("ZOILGetObjByOID", 1);
        EXPECT_EQ(standin::SetStatus(kFan, 2, false), "");
        EXPECT_EQ(StatusOf(kOther), 0); // not meant
        EXPECT_EQ(StatusOf(kFan), 2);   // one time is over
        EXPECT_EQ(
            standin::SetDelay("ZOILGetObjByOID", {.late = late, .oid = kFan}),
            "");
        caller.join();
        EXPECT_EQ(answer, late ? 1 : 2);
    }
}

TEST_F(StandinDelays, LogLinesAreMetByFormatAndByText)
{
    standin::SetLog(0, nullptr);
    for (const char *text : {"ask %s", "ask fan"})
    {
        ASSERT_EQ(
            standin::SetDelay("vexoprintf",
                              {.microseconds = standin::kHang, .text = text}),
            "");
        std::thread caller(
            []
            {
                vexoprintf(9, 208, "ask %s", "fan");
            });
        WaitForHanging("vexoprintf", 1);
        vexoprintf(9, 208, "asked %s", "fan");
        standin::ReleaseDelays();
        caller.join();
        WaitForHanging("vexoprintf", 0);
    }
}

TEST_F(StandinDelays, TakeTheirTimeButNoProcessorTime)
{
    constexpr auto kDelay = std::chrono::milliseconds(20);
    ASSERT_EQ(standin::SetDelay("ZOILGetObjByOID", {.microseconds = 20000}),
              "");
    ASSERT_EQ(standin::SetDelay("ZOILGetObjByOID",
                                {.microseconds = 1, .random = true, .oid = 7}),
              "");
    EXPECT_EQ(StatusOf(kFan), 0);
    standin::MeasureCost(true);
    const standin::CallCost before = standin::Cost();
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; ++i)
    {
        EXPECT_EQ(StatusOf(kFan), 0);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 10 * kDelay);
    const standin::CallCost after = standin::Cost();
    standin::MeasureCost(false);
    EXPECT_EQ(StatusOf(kFan), 0);
    EXPECT_EQ(standin::Cost().calls, after.calls);
    EXPECT_EQ(after.calls - before.calls, 10); // no frees
    EXPECT_GT(after.clockNanoseconds, before.clockNanoseconds);
    const int64_t spent = after.cpuNanoseconds - before.cpuNanoseconds;
    EXPECT_GT(spent, 0);
    EXPECT_LT(spent, std::chrono::nanoseconds(kDelay).count());
}

constexpr char kScenario[] = R"({
 "objects": [
  {"type":"0x36","key":"host","values":{"powerState":1}},
  {"type":"0xE1","repeat":3,"oid":{"base":"0x64","step":5},
   "key":"dimm {n}","parents":[{"key":"host"}],
   "values":{"Speed":{"base":2000,"step":400},"BankLabel":"A{i}"}},
  {"type":"0xE1","values":{"Sped":1}},
  {"type":"0x36","parents":[{"key":"nobody"}]}],
 "attributes": [
  {"interface":"CfgIntAttribute","repeat":2,"key":"A.1#B.1#C{n}"}],
 "faults": [{"call":"ZOMutexCreate","status":0,"times":1}],
 "delays": [{"call":"ZOMutexLock","microseconds":1,"times":-2}]})";

// clang-format off
// Asked in this order; a reply has to begin with the text given.
constexpr std::pair<const char *, const char *> kExchange[] = {
    {R"({"op":"wait","timeoutMs":1})", R"({"ok":true})"}, // the scenario announces nothing
    {R"({"op":"list"})",
     R"({"ok":true,"objects":[{"oid":100,"type":225,"key":"dimm 1"},)"
     R"({"oid":105,"type":225,"key":"dimm 2"},{"oid":110,"type":225,"key":"dimm 3"},)"
     R"({"oid":4096,"type":54,"key":"host"}]})"},
    {R"({"op":"show","oid":"0x69"})",
     R"({"ok":true,"oid":105,"type":225,"status":0,"key":"dimm 2",)"
     R"("parents":[4096],"values":{"Speed":2400,"BankLabel":"A1"},"hex":")"},
    {R"({"op":"create","type":"0x16","announce":false})", R"({"ok":true,"oid":4097})"},
    {R"({"op":"delete","oids":[4097,"0x64"]})", R"({"ok":true})"},
    {R"({"op":"object","hex":"0c0000000700000016000000","parents":[1]})", R"({"ok":true})"},
    {R"({"op":"object","hex":"0g"})",
     R"({"ok":false,"error":"byte 0x67 isn't a hexadecimal digit"})"},
    {R"({"op":"event","hex":"10000000"})", R"({"ok":true})"},
    {R"({"op":"wait","timeoutMs":1})", R"({"ok":false,"error":)"},
    {R"({"op":"announce","event":3,"oids":[4096,"0x6E"]})", R"({"ok":true,"begin":)"},
    {R"({"op":"announce","event":8,"oids":[7,8],"together":true})", R"({"ok":true,"begin":)"},
    {R"({"op":"announce","event":3,"oids":[4096],"rate":1000})",
     R"({"ok":false,"error":"the listener left before the last event"})"},
    {R"({"op":"memory"})", R"({"ok":true,"heap":)"},
    {R"({"op":"churn","count":1,"rate":10})",
     R"({"ok":false,"error":"nobody listens to the events"})"},
    {R"({"op":"detach"})", R"({"ok":true})"},
    {R"({"op":"attach"})", R"({"ok":true})"},
    {R"({"op":"calls","call":"CfgSetAttributeInt"})", R"({"ok":true,"count":2})"},
    {R"({"op":"delay","call":"ZOFreeMem","microseconds":"hang","random":true,"late":true,"times":3})",
     R"({"ok":true})"},
    {R"({"op":"delay","call":"ZOFreeMem","microseconds":1,"text":"x"})",
     R"({"ok":false,"error":"ZOFreeMem writes no text"})"},
    {R"({"op":"fault","call":"ZOFreeMem","status":1,"times":1})",
     R"({"ok":false,"error":"ZOFreeMem returns nothing and can't fail"})"},
    {R"({"op":"delay","call":"ZOFreeMem","microseconds":"long"})",
     R"({"ok":false,"error":"\"microseconds\" has to be)"},
    {R"({"op":"cost"})", R"({"ok":true,"calls":0,"cpuNanoseconds":0,"clockNanoseconds":0,"ownThreadNanoseconds":)"},
    {R"({"op":"attributes"})", R"({"ok":true,"integers":{"ready":1}})"},
    {R"({"op":"batch","ops":[{"op":"detach"},{"op":"nothing"},7]})",
     R"({"ok":true,"replies":[{"ok":true},{"ok":false,"error":)"
     R"("there is no command \"nothing\""},{"ok":false,"error":)"},
    {R"({"op":"create","type":70000})",
     R"({"ok":false,"error":"\"type\" has to be an integer of 16 bits"})"},
    {R"({"op":)", R"({"ok":false,"error":"bad JSON: )"},
    {"\xFF\"", R"({"ok":false,"error":"bad JSON: )"},
    {"", R"({"ok":false,"error":"bad JSON: )"},
    {R"({"op":"reset"})", R"({"ok":true})"},
    {R"({"op":"list"})", R"({"ok":true,"objects":[]})"},
};
// clang-format on

#define REQUIRE(condition)                                                     \
    if (!(condition))                                                          \
    {                                                                          \
        std::fprintf(stderr, "failed: %s\n", #condition);                      \
        std::exit(1);                                                          \
    }

// Run in a fresh process, in which nothing has used the stand-in before.
[[noreturn]] void UseEnvironment(const std::string &folder)
{
    const std::string path = (folder + "/socket");
    std::ofstream((folder + "/scenario")) << kScenario;
    setenv("QDB_STANDIN_SCENARIO", (folder + "/scenario").c_str(), 1);
    setenv("QDB_STANDIN_SOCKET", path.c_str(), 1);
    setenv("QDB_STANDIN_STATE", (folder + "/state").c_str(), 1);
    setenv("QDB_STANDIN_LOG", "3", 1);
    const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    REQUIRE(bind(stale, reinterpret_cast<sockaddr *>(&address),
                 sizeof(address)) == 0);
    close(stale);
    REQUIRE(CommandAt(path, "{}").empty()); // nothing is served yet
    REQUIRE(ZOMutexCreate(0) == nullptr);
    vexoprintf(4, 208, "not written");
    vexoprintf(3, 208, "written");
    REQUIRE(CfgSetAttributeInt("ready", 0, 0, 0) == 0);
    REQUIRE(CfgSetAttributeInt("ready", 1, 0, 0) == 0);
    REQUIRE(qdb::test::FileText(folder + "/state") == R"({"ready":1})");
    struct stat status = {};
    REQUIRE(stat(path.c_str(), &status) == 0 &&
            (status.st_mode & 0777) == 0600);

    for (const auto &[request, expected] : kExchange)
    {
        const std::string reply = CommandAt(path, request);
        if (!reply.starts_with(expected))
        {
            std::fprintf(stderr, "%s\n gave %s\n", request, reply.c_str());
            std::exit(1);
        }
    }
    const std::string tooLong((16 << 20) + 1, ' ');
    REQUIRE(CommandAt(path, tooLong).empty());
    // Long before its end.
    REQUIRE(CommandAt(path, tooLong + tooLong).empty());
    REQUIRE(CommandAt(path, "{}").starts_with(R"({"ok":false)"));
    std::exit(0); // with the threads still there
}

TEST(StandinDeathTest, ServesItsSocketAndScenario)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const qdb::test::TempRoot folder;
    EXPECT_EXIT(UseEnvironment(folder.Path()), testing::ExitedWithCode(0),
                "objects, entry 3: TblMemoryInfo.Sped: .*\n"
                ".*objects, entry 4: no object has the key \"nobody\"\n"
                ".*delays, entry 1: times and skip can't be negative\n"
                "written\n");
}

} // namespace
