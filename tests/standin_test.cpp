// The stand-in platform: its calls, events, faults, configuration, and the
// control socket of a process of its own.
#include "platform/cfgclient.h"
#include "platform/standin/standin.h"
#include "platform/vexolog.h"
#include "platform/zo_base.h"
#include "platform/zoil.h"
#include "tests/standin_values.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <bit>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

using namespace standin_test;

namespace
{

// --- Recording listener --------------------------------------------------

struct Recorder
{
    std::mutex lock;
    std::vector<Bytes> records;
};
Recorder gRecorder;

int Record(DataEventHeader *record)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(record);
    const std::lock_guard lock(gRecorder.lock);
    gRecorder.records.emplace_back(bytes, bytes + record->evtSize);
    return 0;
}

// "7:1,2" for a creation of two objects, "12" for a detach.
std::string Describe(const Bytes &record)
{
    std::string text = std::to_string(Load(record, 4, 2));
    for (size_t at = 20; at < record.size(); at += 4)
    {
        text += (at == 20 ? ":" : ",") + std::to_string(Load(record, at, 4));
    }
    return text;
}

std::string Delivered()
{
    EXPECT_TRUE(standin::WaitDelivered(30000));
    const std::lock_guard lock(gRecorder.lock);
    std::string text;
    for (const Bytes &record : gRecorder.records)
    {
        text += (text.empty() ? "" : " ") + Describe(record);
    }
    gRecorder.records.clear();
    return text;
}

class StandinTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        standin::Reset();
    }

    void TearDown() override
    {
        ZOILRemoveEventListener(Record);
        standin::SetLog(0, nullptr);
        standin::Reset();
        const std::lock_guard lock(gRecorder.lock);
        gRecorder.records.clear();
    }

    static void Create(uint32_t oid, uint16_t type, const std::string &values,
                       bool announce = false)
    {
        const Json parsed = Parse(values);
        standin::ObjectSpec spec;
        spec.type = type;
        spec.oid = oid;
        spec.parents = {standin::kRootOid};
        spec.values = parsed.get();
        EXPECT_EQ(standin::CreateObject(spec, announce), "");
    }
};

// --- Platform calls ------------------------------------------------------

TEST_F(StandinTest, AnswersFromTheObjectsThatLive)
{
    Create(0x80000001, 0x16, R"({"Key":"16||A"})");
    Create(20, 0x16, "{}");
    standin::ObjectSpec child;
    child.type = 0x16;
    child.oid = 21;
    child.parents = {20, 1};
    child.key = "named";
    ASSERT_EQ(standin::CreateObject(child, false), "");
    EXPECT_NE(standin::CreateObject(child, false), "") << "OID taken twice";

    const auto list = [](uint32_t parent, uint16_t type)
    {
        const Owned<uint32_t> oids(ZOILListChildOIDByType(&parent, type));
        return std::vector<uint32_t>(oids.get() + 1,
                                     oids.get() + 1 + oids.get()[0]);
    };
    EXPECT_EQ(list(1, 0x16), (std::vector<uint32_t>{20, 21, 0x80000001}));
    EXPECT_EQ(list(20, 0x16), std::vector<uint32_t>{21});
    EXPECT_EQ(list(1, 0xE1), std::vector<uint32_t>{});
    EXPECT_EQ(list(1, 0x4051), std::vector<uint32_t>{});

    const uint32_t oid = 21;
    const uint32_t unknown = 99;
    const Owned<uint32_t> parents(ZOILListParentOID(&oid));
    EXPECT_EQ(std::vector<uint32_t>(parents.get(), parents.get() + 3),
              (std::vector<uint32_t>{2, 20, 1}));
    EXPECT_EQ(ZOILListParentOID(&unknown), nullptr);
    EXPECT_EQ(ZOILGetObjByOID(&unknown), nullptr);
    EXPECT_EQ(ZOILGetObjByKey("nobody"), nullptr);

    const Owned<DataObjHeader> byKey(ZOILGetObjByKey("16||A"));
    ASSERT_NE(byKey, nullptr);
    EXPECT_EQ(byKey->objID, 0x80000001u);
    const Owned<DataObjHeader> byOid(ZOILGetObjByOID(&oid));
    char *key = nullptr;
    EXPECT_EQ(ZOILDOGetObjKeyUTF8(byOid.get(), &key), 0);
    EXPECT_STREQ(key, "named");
    ZOFreeMem(key);
    ASSERT_EQ(standin::DeleteObjects({{oid}}, false), "");
    key = nullptr;
    EXPECT_EQ(ZOILDOGetObjKeyUTF8(byOid.get(), &key), 256);
    EXPECT_EQ(key, nullptr);
}

TEST_F(StandinTest, GivesRawObjectsTheSizeThatTheyClaim)
{
    Bytes bytes(24, 0xEE);
    const uint32_t head[] = {4096, 77, 0x16};
    std::memcpy(bytes.data(), head, sizeof(head));
    ASSERT_EQ(standin::PutRawObject(bytes), "");
    const uint32_t oid = 77;
    const Owned<DataObjHeader> object(ZOILGetObjByOID(&oid));
    const auto *copy = reinterpret_cast<const uint8_t *>(object.get());
    EXPECT_EQ(copy[23], 0xEE);
    EXPECT_EQ(copy[4095], 0);
    EXPECT_NE(standin::PutRawObject({bytes.data(), 7}), "");
}

TEST_F(StandinTest, FailsTheCallsThatAFaultNames)
{
    Create(20, 0x16, "{}");
    const uint32_t oid = 20;
    const auto fetch = [&]
    {
        return Owned<DataObjHeader>(ZOILGetObjByOID(&oid)) != nullptr;
    };
    ASSERT_EQ(standin::SetFault("ZOILGetObjByOID", 0, 2, 1), "");
    EXPECT_TRUE(fetch());
    EXPECT_FALSE(fetch());
    EXPECT_FALSE(fetch());
    EXPECT_TRUE(fetch());
    EXPECT_EQ(standin::CallCount("ZOILGetObjByOID"), 4u);

    const char *path = "/com/vexo/tarnu/Config/Attributes/a_1/b_1/c";
    ASSERT_EQ(standin::PutAttribute("CfgIntAttribute", "A.1#B.1#C", nullptr),
              "");
    ASSERT_EQ(standin::SetFault("client_get_objects", 7, 1), "");
    ASSERT_EQ(standin::SetFault("CfgIntAttribute_get_object", 8, 1), "");
    ASSERT_EQ(standin::SetFault("ZOILIsDataManagerReady", 0, 1), "");
    ASSERT_EQ(standin::SetFault("CfgSetAttributeInt", -3, 1), "");
    uintptr_t *list = nullptr;
    EXPECT_EQ(client_get_objects("CfgGroup", "", &list), 7);
    EXPECT_EQ(list, nullptr);
    DataObjHeader *object = nullptr;
    EXPECT_EQ(CfgIntAttribute_get_object("", path, &object), 8);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(ZOILIsDataManagerReady(), 0);
    EXPECT_EQ(ZOILIsDataManagerReady(), 1);
    EXPECT_EQ(CfgSetAttributeInt("k", 5, 0, 0), -3);
    EXPECT_EQ(standin::IntegerAttribute("k", -1), -1);
    EXPECT_EQ(CfgSetAttributeInt("k", 5, 0, 0), 0);
    EXPECT_EQ(standin::IntegerAttribute("k", -1), 5);

    EXPECT_NE(standin::SetFault("ZOILNothing", 1, 1), "");
    EXPECT_NE(standin::SetFault("ZOFreeMem", 1, 1), "");
    ASSERT_EQ(standin::SetFault("ZOAllocMem", 0, 1), "");
    ASSERT_EQ(standin::SetFault("ZOAllocMem", 0, 0), "");
    const Owned<void> memory(ZOAllocMem(16));
    EXPECT_NE(memory, nullptr);
}

TEST_F(StandinTest, ServesConfigurationObjects)
{
    const std::string key = "System.Embedded.1#ServerOS.1#ServerPoweredOnTime";
    ASSERT_EQ(standin::PutAttribute("CfgIntAttribute", key,
                                    Parse(R"({"currentValue":-5})").get()),
              "");
    ASSERT_EQ(standin::PutAttribute("CfgIntAttribute", key,
                                    Parse(R"({"maxValue":9})").get()),
              "");
    EXPECT_NE(standin::PutAttribute("CfgStrAttribute", key, nullptr), "");
    EXPECT_NE(standin::PutAttribute("CfgGroup", "A#B", nullptr), "");
    EXPECT_NE(standin::PutAttribute("CfgIntAttribute", "alone", nullptr), "");
    EXPECT_NE(standin::PutGroup("System.Embedded.1#ServerOS.1"), "");
    EXPECT_NE(standin::PutGroup(""), "");

    uintptr_t *list = nullptr;
    ASSERT_EQ(
        client_get_objects("com.vexo.tarnu.Config.CfgIntAttribute", "", &list),
        0);
    ASSERT_EQ(list[0], 1u);
    const auto *listed = std::bit_cast<const DataObjHeader *>(list[1]);
    const auto *words = reinterpret_cast<const uint32_t *>(listed);
    EXPECT_EQ(listed->objType, 0x4051);
    EXPECT_EQ(words[0x28 / 4], 0xFFFFFFFB);
    EXPECT_EQ(words[0x34 / 4], 9u);
    FreeObjectList(list);

    DataObjHeader *group = nullptr;
    ASSERT_EQ(CfgGroup_get_object(
                  "",
                  "/com/vexo/tarnu/Config/Attributes/system_embedded_1/"
                  "serveros_1",
                  &group),
              0);
    const Owned<DataObjHeader> owner(group);
    uint32_t *body = nullptr;
    ASSERT_EQ(client_get_obj_body_ptr(group, &body), 0);
    EXPECT_STREQ(reinterpret_cast<const char *>(group) + body[1],
                 "System.Embedded.1#ServerOS.1");
    char *groupKey = nullptr;
    EXPECT_EQ(ZOILDOGetObjKeyUTF8(group, &groupKey), 0);
    EXPECT_STREQ(groupKey, "System.Embedded.1#ServerOS.1");
    ZOFreeMem(groupKey);
    groupKey = nullptr;
    body[1] = group->objSize;
    EXPECT_EQ(ZOILDOGetObjKeyUTF8(group, &groupKey), 256);
    EXPECT_EQ(groupKey, nullptr);

    DataObjHeader *none = nullptr;
    EXPECT_NE(CfgStrAttribute_get_object(
                  "", standin::AttributePath(key).c_str(), &none),
              0);
    EXPECT_EQ(standin::RemoveAttribute(key), "");
    EXPECT_NE(CfgIntAttribute_get_object(
                  "", standin::AttributePath(key).c_str(), &none),
              0);
    EXPECT_EQ(none, nullptr);
}

TEST_F(StandinTest, LocksWithALimit)
{
    ZOMutex *mutex = ZOMutexCreate(0);
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(ZOMutexLock(mutex, -1), 0);
    std::thread(
        [mutex]
        {
            EXPECT_NE(ZOMutexLock(mutex, 1), 0);
        })
        .join();
    EXPECT_EQ(ZOMutexUnLock(mutex), 0);
    std::thread(
        [mutex]
        {
            EXPECT_EQ(ZOMutexLock(mutex, 1000), 0);
            ZOMutexUnLock(mutex);
        })
        .join();
    EXPECT_EQ(ZOMutexDestroy(mutex), 0);
    EXPECT_EQ(ZOMutexLock(nullptr, -1), 0);
    EXPECT_EQ(ZOMutexUnLock(nullptr), 0);
    EXPECT_EQ(ZOMutexDestroy(nullptr), 0);
}

std::string gLines;

void KeepLine(int level, const char *line)
{
    gLines += std::to_string(level) + "[" + line + "]";
}

TEST_F(StandinTest, HandsOnTheLinesThatPassTheLevel)
{
    gLines.clear();
    standin::SetLog(3, KeepLine);
    vexoprintf(3, 208, "%s: %d\n", "tag", 5);
    vexoprintf(4, 208, "dropped");
    vexoprintf(1, 208, "%s", std::string(3000, 'x').c_str());
    EXPECT_EQ(gLines, "3[tag: 5\n]1[" + std::string(3000, 'x') + "]");
    EXPECT_EQ(standin::CallCount("vexoprintf"), 2u);
    standin::SetLog(0, KeepLine);
    vexoprintf(1, 208, "dropped");
    EXPECT_EQ(standin::CallCount("vexoprintf"), 2u);

    testing::internal::CaptureStderr();
    standin::SetLog(6, nullptr);
    vexoprintf(6, 208, "one");
    vexoprintf(6, 208, "two\n\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "one\ntwo\n");
}

// --- Events --------------------------------------------------------------

TEST_F(StandinTest, DeliversChangesInOrder)
{
    Create(30, 0x16, "{}", true); // waits until somebody listens
    EXPECT_EQ(ZOILAddEventListener(nullptr), 2);
    ASSERT_EQ(ZOILAddEventListener(Record), 0);
    Create(31, 0x36, "{}", true);
    const Json change = Parse(R"({"powerState":1})");
    EXPECT_EQ(standin::SetObject(31, change.get()), "");
    EXPECT_EQ(standin::SetObject(31, change.get(), false), "");
    EXPECT_NE(standin::SetObject(99, change.get()), "");
    EXPECT_NE(standin::SetObject(31, Parse(R"({"x":1})").get()), "");
    EXPECT_EQ(standin::DeleteObjects({{30, 31}}), "");
    EXPECT_NE(standin::DeleteObjects({{30}}), "");
    standin::Detach();
    EXPECT_EQ(ZOILIsDataManagerReady(), 0);
    EXPECT_EQ(Delivered(), "7:30 7:31 3:31 8:30,31 12");

    // A record that is shorter than it claims is filled up with zeros.
    const uint32_t claim[] = {24, 3450};
    standin::SendRecord({reinterpret_cast<const uint8_t *>(claim), 6});
    EXPECT_EQ(Delivered(), "3450:0");

    ASSERT_EQ(ZOILRemoveEventListener(Record), 0);
    Create(32, 0x16, "{}", true);
    EXPECT_FALSE(standin::WaitDelivered(1));
    standin::Reset();
    EXPECT_EQ(Delivered(), "");
}

TEST_F(StandinTest, SendsTheWholeObjectWithItsStatus)
{
    Create(30, 0x16, R"({"DOH_ObjStatus":1})");
    ASSERT_EQ(ZOILAddEventListener(Record), 0);
    ASSERT_EQ(standin::SetStatus(30, 5), "");
    ASSERT_EQ(standin::SetObject(30, Parse(R"({"Key":"k"})").get(), false), "");
    ASSERT_TRUE(standin::WaitDelivered(30000));
    const Bytes object = standin::ObjectBytes(30);
    EXPECT_EQ(object[10], 5) << "kept when another column changes";
    const std::lock_guard lock(gRecorder.lock);
    ASSERT_EQ(gRecorder.records.size(), 1u);
    const Bytes &record = gRecorder.records[0];
    EXPECT_EQ(Load(record, 4, 2), 4u);
    EXPECT_EQ(Load(record, 20 + 4, 4), 30u);
    EXPECT_EQ(Load(record, 20 + 10, 1), 5u);
    EXPECT_EQ(record.size(), 20 + Load(record, 20, 4));
}

TEST_F(StandinTest, AttachesInListsOfBoundedLength)
{
    const uint16_t type = 0x36;
    ASSERT_EQ(standin::GenerateObjects(4001, {&type, 1}, false), "");
    ASSERT_EQ(ZOILAddEventListener(Record), 0);
    standin::Attach();
    ASSERT_TRUE(standin::WaitDelivered(30000));
    const std::lock_guard lock(gRecorder.lock);
    ASSERT_EQ(gRecorder.records.size(), 2u);
    EXPECT_EQ(Load(gRecorder.records[0], 16, 4), 4000u);
    EXPECT_EQ(Load(gRecorder.records[1], 16, 4), 1u);
}

TEST_F(StandinTest, ChurnsOneColumnPerEvent)
{
    EXPECT_NE(standin::Churn(1, 0, {}), "") << "no object";
    ASSERT_EQ(standin::GenerateObjects(300, {}, false), "");
    EXPECT_NE(standin::Churn(1, 0, {}), "") << "no listener";
    std::map<uint32_t, Bytes> before;
    for (const uint32_t oid : standin::ObjectIds())
    {
        before[oid] = standin::ObjectBytes(oid);
    }
    ASSERT_EQ(ZOILAddEventListener(Record), 0);
    ASSERT_EQ(standin::Churn(before.size(), 0, {}), "");
    {
        const std::lock_guard lock(gRecorder.lock);
        EXPECT_EQ(gRecorder.records.size(), before.size());
    }
    for (const auto &[oid, old] : before)
    {
        const Bytes bytes = standin::ObjectBytes(oid);
        ASSERT_EQ(bytes.size(), old.size());
        const auto [from, unused] =
            std::mismatch(bytes.begin(), bytes.end(), old.begin());
        const auto [back, alsoUnused] =
            std::mismatch(bytes.rbegin(), bytes.rend(), old.rbegin());
        EXPECT_LE(back.base() - from, 8);
        EXPECT_GE(back.base() - from, 1) << "nothing changed in " << oid;
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.begin() + 10, old.begin()));
    }
}

// --- A process of its own ------------------------------------------------

class Folder
{
  public:
    Folder()
    {
        EXPECT_NE(mkdtemp(path), nullptr);
    }

    ~Folder()
    {
        for (const char *name : {"scenario", "socket", "state"})
        {
            unlink(In(name).c_str());
        }
        rmdir(path);
    }

    std::string In(const char *name) const
    {
        return std::string(path) + "/" + name;
    }

    char path[32] = "/tmp/standin_test.XXXXXX";
};

class Client
{
  public:
    explicit Client(const std::string &path)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        isConnected = connect(fd, reinterpret_cast<sockaddr *>(&address),
                              sizeof(address)) == 0;
    }

    ~Client()
    {
        close(fd);
    }

    // The reply; "" when the other side has closed.
    std::string Ask(const std::string &line) const
    {
        const std::string out = line + "\n";
        for (size_t sent = 0; sent < out.size();)
        {
            const ssize_t n =
                send(fd, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
            if (n <= 0)
            {
                return "";
            }
            sent += static_cast<size_t>(n);
        }
        std::string reply;
        char c = 0;
        while (recv(fd, &c, 1, 0) == 1 && c != '\n')
        {
            reply += c;
        }
        return reply;
    }

    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    bool isConnected = false;
};

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
 "faults": [{"call":"ZOMutexCreate","status":0,"times":1}]})";

// clang-format off
// Asked in this order; a reply has to begin with the text given.
constexpr std::pair<const char *, const char *> kExchange[] = {
    {R"({"op":"list"})",
     R"({"ok":true,"objects":[{"oid":100,"type":225,"key":"dimm 1"},)"
     R"({"oid":105,"type":225,"key":"dimm 2"},{"oid":110,"type":225,"key":"dimm 3"},)"
     R"({"oid":4096,"type":54,"key":"host"}]})"},
    {R"({"op":"show","oid":"0x69"})",
     R"({"ok":true,"oid":105,"type":225,"status":0,"key":"dimm 2",)"
     R"("parents":[4096],"values":{"Speed":2400,"BankLabel":"A1"},"hex":")"},
    {R"({"op":"create","type":"0x16","announce":false})", R"({"ok":true,"oid":4097})"},
    {R"({"op":"status","oid":4097,"status":3})", R"({"ok":true})"},
    {R"({"op":"set","oid":4097,"values":{"Key":"p"}})", R"({"ok":true})"},
    {R"({"op":"list","type":"0x16"})", R"({"ok":true,"objects":[{"oid":4097,"type":22,"key":"p"}]})"},
    {R"({"op":"delete","oids":[4097,"0x64"]})", R"({"ok":true})"},
    {R"({"op":"delete","oids":[4097]})", R"({"ok":false,"error":"there is no object 0x1001"})"},
    {R"({"op":"generate","count":2,"types":[54]})", R"({"ok":true})"},
    {R"({"op":"object","hex":"0c0000000700000016000000","parents":[1]})", R"({"ok":true})"},
    {R"({"op":"object","hex":"0g"})",
     R"({"ok":false,"error":"byte 0x67 isn't a hexadecimal digit"})"},
    {R"({"op":"event","hex":"10000000"})", R"({"ok":true})"},
    {R"({"op":"wait","timeoutMs":1})", R"({"ok":false,"error":)"},
    {R"({"op":"churn","count":1,"rate":10})",
     R"({"ok":false,"error":"nobody listens to the events"})"},
    {R"({"op":"detach"})", R"({"ok":true})"},
    {R"({"op":"attach"})", R"({"ok":true})"},
    {R"({"op":"fault","call":"ZOAllocMem","status":0,"times":1})", R"({"ok":true})"},
    {R"({"op":"calls","call":"CfgSetAttributeInt"})", R"({"ok":true,"count":2})"},
    {R"({"op":"calls","call":"x"})", R"({"ok":false,"error":"there is no platform function x"})"},
    {R"({"op":"attributes"})", R"({"ok":true,"integers":{"ready":1}})"},
    {R"({"op":"attribute","interface":"CfgStrAttribute","key":"A#B"})", R"({"ok":true})"},
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

std::string ReadFile(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Run in a fresh process, in which nothing has used the stand-in before.
[[noreturn]] void UseEnvironment(const Folder &folder)
{
    const std::string path = folder.In("socket");
    std::ofstream(folder.In("scenario")) << kScenario;
    setenv("QDB_STANDIN_SCENARIO", folder.In("scenario").c_str(), 1);
    setenv("QDB_STANDIN_SOCKET", path.c_str(), 1);
    setenv("QDB_STANDIN_STATE", folder.In("state").c_str(), 1);
    setenv("QDB_STANDIN_LOG", "3", 1);
    const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    REQUIRE(bind(stale, reinterpret_cast<sockaddr *>(&address),
                 sizeof(address)) == 0);
    close(stale);
    REQUIRE(!Client(path).isConnected); // nothing is served yet
    REQUIRE(ZOMutexCreate(0) == nullptr);
    vexoprintf(4, 208, "not written");
    vexoprintf(3, 208, "written");
    REQUIRE(CfgSetAttributeInt("ready", 0, 0, 0) == 0);
    REQUIRE(CfgSetAttributeInt("ready", 1, 0, 0) == 0);
    REQUIRE(ReadFile(folder.In("state")) == R"({"ready":1})");
    struct stat status = {};
    REQUIRE(stat(path.c_str(), &status) == 0 &&
            (status.st_mode & 0777) == 0600);

    const Client idle(path);
    const Client client(path);
    for (const auto &[request, expected] : kExchange)
    {
        const std::string reply = client.Ask(request);
        if (!reply.starts_with(expected))
        {
            std::fprintf(stderr, "%s\n gave %s\n", request, reply.c_str());
            std::exit(1);
        }
    }
    REQUIRE(client.Ask(std::string((16 << 20) + 1, ' ')).empty());
    REQUIRE(idle.Ask("{}").starts_with(R"({"ok":false)"));
    std::exit(0); // with the threads still there
}

TEST(StandinDeathTest, ServesItsSocketAndScenario)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const Folder folder;
    EXPECT_EXIT(UseEnvironment(folder), testing::ExitedWithCode(0),
                "objects, entry 3: TblMemoryInfo.Sped: .*\n"
                ".*objects, entry 4: no object has the key \"nobody\"\n"
                "written\n");
}

} // namespace
