// A platform that takes its time, and now and then doesn't answer: nobody but
// those who need the answer waits for it, and no object is lost or left old.
//
// QDB_TEST_BURSTS: how many bursts of replaced objects; 3 unless given.

#include "config/config_load.h"
#include "core/state.h"
#include "queues/event_queue.h"
#include "standin/commands.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"
#include "tests/support/wait.h"
#include "tools/audit/audit.h"

#include <cstdlib>
#include <future>
#include <set>

namespace qdb::test
{
namespace
{

constexpr uint16_t kStatus = 0x1001;
constexpr uint16_t kCreateEvent = 7;

// Everything that the database and the two managers disagree on.
Lines Unequal(const Mirror &mirror)
{
    const JsonPtr request(json_pack("{s:s}", "op", "dump"));
    const audit::Content content =
        audit::ParseContent(standin::Execute(request.get()).get());
    sqlite3 *database = nullptr;
    EXPECT_EQ(sqlite3_open(mirror.Root().Database().c_str(), &database),
              SQLITE_OK);
    sqlite3_busy_timeout(database, kDeadlineMs);
    const audit::Report report =
        Compare(content, audit::ReadSnapshot(database));
    sqlite3_close(database);
    Lines lines;
    for (const audit::Difference &difference : report.differences)
    {
        lines.push_back(Print(difference));
    }
    return lines;
}

void PutChild(uint16_t type, uint32_t oid, uint32_t parent,
              const std::string &values, bool announce)
{
    const JsonPtr parsed(json_loads(values.c_str(), 0, nullptr));
    const standin::ObjectSpec spec = {
        .type = type, .oid = oid, .parents = {parent}, .values = parsed.get()};
    EXPECT_EQ(standin::CreateObject(spec, announce), "");
}

void Set(uint32_t oid, const std::string &values, bool announce)
{
    const JsonPtr parsed(json_loads(values.c_str(), 0, nullptr));
    EXPECT_EQ(standin::SetObject(oid, parsed.get(), announce), "");
}

void Delete(const Words &oids)
{
    EXPECT_EQ(standin::DeleteObjects(oids), "");
}

// --- A call that hangs -------------------------------------------------------

constexpr uint32_t kParent = 0x4001;
constexpr uint32_t kSubject = 0x1701;
constexpr uint32_t kAttribute = 0x40510001;

// One record and what it stands on. All that comes before is carried out
// first.
struct Story
{
    const char *name;
    void (*before)(Mirror &);
    void (*record)();
    bool isReload = false; // which leaves the status in the row as it is
    const char *only = ""; // the calls that are of interest begin like that
};

void PutParent(Mirror &)
{
    PutObject(0x40, kParent, R"({"FQDD": "Fan", "Key": "Fan.1"})", true);
}

void PutSubject(Mirror &mirror)
{
    PutParent(mirror);
    PutChild(0x17, kSubject, kParent, R"({"Key": "Speed", "probeReading": 1})",
             true);
}

void PutDisk(Mirror &mirror)
{
    PutParent(mirror);
    PutChild(0x304, kSubject, kParent, R"({"modelName": "a"})", true);
}

// Without it a status change of most types is passed over.
void PutKeyed()
{
    PutObject(0x91, 0x9101, R"({"Key": "91||System.Embedded.1"})", true);
}

// An object that its reload has seen before, and that has changed since.
void PutReloaded(Mirror &mirror, uint16_t type, const std::string &values,
                 const std::string &change)
{
    PutParent(mirror);
    PutChild(type, kSubject, kParent, values, true);
    mirror.Settle();
    EXPECT_EQ(standin::SetStatus(kSubject, 1), "");
    mirror.Settle();
    Set(kSubject, change, false);
}

void ChangeStatus()
{
    EXPECT_EQ(standin::SetStatus(kSubject, 9), "");
}

void PutAttribute(const std::string &interface, const char *name)
{
    const JsonPtr values(json_pack("{s:s}", "DisplayName", name));
    EXPECT_EQ(
        standin::PutAttribute(interface, "A.1#B.1#C", values.get(), kAttribute),
        "");
}

void TellAttribute(uint16_t kind, const std::string &interface)
{
    const Bytes record =
        BusRecord(kind, kAttribute, standin::AttributePath("A.1#B.1#C"),
                  "com.vexo.tarnu.Config." + interface);
    auto *copy = static_cast<DataEventHeader *>(std::malloc(record.size()));
    std::memcpy(copy, record.data(), record.size());
    QdbenQueue(gQdbEventQueue, copy);
}

void CreateAttribute(const std::string &interface)
{
    PutAttribute(interface, "a");
    TellAttribute(kCreateEvent, interface);
}

std::future<int> gLoad;

void LoadAttributes()
{
    gLoad =
        std::async(std::launch::async,
                   []
                   {
                       ConfigObjectList groups;
                       groups.Fetch(kConfigGroup);
                       return OnLoadConfigObjectsCreation(
                           "com.vexo.tarnu.Config.CfgIntAttribute", &groups);
                   });
}

// Waits until the record has been carried out.
void Finish(Mirror &mirror)
{
    if (gLoad.valid())
    {
        EXPECT_EQ(gLoad.get(), 0);
    }
    mirror.Settle();
}

// clang-format off
const Story kStories[] = {
    {"create", PutParent,
     [] { PutChild(0x17, kSubject, kParent, R"({"Key": "Speed"})", true); }},
    {"refresh", PutSubject, [] { Set(kSubject, R"({"probeReading": 2})", true); }},
    {"refresh with links", PutDisk, [] { Set(kSubject, R"({"modelName": "b"})", true); }},
    {"delete", PutSubject, [] { Delete({kSubject}); }},
    {"status change",
     [](Mirror &m) { PutSubject(m); PutKeyed(); }, ChangeStatus},
    {"bus create, integer", [](Mirror &) {},
     [] { CreateAttribute("CfgIntAttribute"); }},
    {"bus create, text", [](Mirror &) {},
     [] { CreateAttribute("CfgStrAttribute"); }, false, "CfgStr"},
    {"bus create, enumeration", [](Mirror &) {},
     [] { CreateAttribute("CfgEnumAttribute"); }, false, "CfgEnum"},
    {"bus create, password", [](Mirror &) {},
     [] { CreateAttribute("CfgPasswdAttribute"); }, false, "CfgPasswd"},
    {"bus refresh",
     [](Mirror &) { CreateAttribute("CfgIntAttribute"); },
     [] { PutAttribute("CfgIntAttribute", "b"); TellAttribute(3, "CfgIntAttribute"); }},
    {"bulk load", [](Mirror &) { PutAttribute("CfgIntAttribute", "a"); }, LoadAttributes},
    {"reload of devices",
     [](Mirror &m) { PutReloaded(m, 0xEB, R"({"fwVersion": "a"})", R"({"fwVersion": "b"})"); },
     ChangeStatus, true},
    {"reload of memory",
     [](Mirror &m) { PutReloaded(m, 0xE1, R"({"Key": "A1"})", R"({"Key": "DIMM.A1"})"); },
     ChangeStatus, true},
    {"reload of FRUs",
     [](Mirror &m) { PutReloaded(m, 0x42, R"({"Key": "Disk.Bay.1", "SerialNumber": "a"})", R"({"SerialNumber": "b"})"); },
     ChangeStatus, true},
    {"keyed reload",
     [](Mirror &m) { PutReloaded(m, 0x91, R"({"Key": "91||System.Embedded.1"})", R"({"SysProductName": "b"})"); },
     ChangeStatus, true},
};
// clang-format on

// The platform functions that answer for a handler. A mutex of the platform
// that hangs is not one of them, nor is the memory for a record's copy: the
// callback itself needs it.
constexpr const char *kAnswers[] = {
    "CfgEnumAttribute_get_object",
    "CfgGroup_get_object",
    "CfgIntAttribute_get_object",
    "CfgPasswdAttribute_get_object",
    "CfgStrAttribute_get_object",
    "FreeObjectList",
    "ZOFreeMem",
    "ZOILDOGetObjKeyUTF8",
    "ZOILFreeGeneric",
    "ZOILGetObjByKey",
    "ZOILGetObjByOID",
    "ZOILListChildOIDByType",
    "ZOILListParentOID",
    "client_get_obj_body_ptr",
    "client_get_objects",
};

// The objects of another row that everything goes on with meanwhile.
struct Others
{
    static void Put()
    {
        for (uint32_t oid = 0x101; oid <= 0x104; ++oid)
        {
            PutObject(kStatus, oid, "{}", true);
        }
    }

    static void Tell()
    {
        Set(0x101, R"({"popName": "changed"})", true);
        Delete({0x102});
        Delete({0x103, 0x104}); // in the callback
        PutObject(kStatus, 0x105, "{}", true);
    }

    static bool AreDone(const Mirror &mirror)
    {
        return mirror.Rows("SELECT OID, popName FROM TblDMStatus_Child_Obj "
                           "ORDER BY OID") == Lines{"257|changed", "261|"};
    }
};

struct ReleaseAtEnd
{
    ~ReleaseAtEnd()
    {
        standin::ReleaseDelays();
        standin::WaitDelivered(kDeadlineMs);
        if (gLoad.valid())
        {
            gLoad.wait();
        }
    }
};

void Prepare(const Story &story, Mirror &mirror)
{
    story.before(mirror);
    Others::Put();
    mirror.Settle();
}

// How often the story's record calls each function.
std::vector<int> CallsOf(const Story &story)
{
    Mirror mirror({.threads = true});
    Prepare(story, mirror);
    std::vector<int> calls;
    for (const char *call : kAnswers)
    {
        calls.push_back(-static_cast<int>(standin::CallCount(call)));
    }
    story.record();
    Finish(mirror);
    for (size_t i = 0; i < calls.size(); ++i)
    {
        calls[i] += static_cast<int>(standin::CallCount(kAnswers[i]));
    }
    return calls;
}

// Lets one call of the story's record hang, as `delay` says.
void Hang(const Story &story, const std::string &call, standin::Delay delay)
{
    Mirror mirror({.threads = true});
    const ReleaseAtEnd release;
    Prepare(story, mirror);
    delay.microseconds = standin::kHang;
    delay.times = 1;
    ASSERT_EQ(standin::SetDelay(call, delay), "");
    story.record();
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            return standin::HangingCalls(call) == 1;
        }))
        << "isn't called";
    Others::Tell();
    ASSERT_TRUE(standin::WaitDelivered(kDeadlineMs)) << "callbacks wait";
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            return Others::AreDone(mirror);
        }))
        << "other objects wait";
    EXPECT_EQ(standin::HangingCalls(call), 1);
    standin::ReleaseDelays();
    Finish(mirror);
    Lines unequal = Unequal(mirror);
    std::erase_if(unequal,
                  [&](const std::string &line)
                  {
                      return story.isReload &&
                             line.find("DOH_ObjStatus") != std::string::npos;
                  });
    EXPECT_EQ(unequal, Lines{});
}

TEST(SlowPlatform, ACallThatHangsHoldsUpNobodyElse)
{
    std::set<std::string> called;
    for (const Story &story : kStories)
    {
        const std::vector<int> calls = CallsOf(story);
        for (size_t i = 0; i < calls.size(); ++i)
        {
            const std::string call = kAnswers[i];
            for (int skip = 0; skip < calls[i] && call.starts_with(story.only);
                 ++skip)
            {
                if (HasFatalFailure())
                {
                    return;
                }
                SCOPED_TRACE(story.name + (": " + call) + " " +
                             std::to_string(skip + 1));
                called.insert(call);
                Hang(story, call, {.skip = skip});
            }
        }
    }
    EXPECT_EQ(called.size(), std::size(kAnswers));
}

// A log that takes its time over what is about to be sent.
TEST(SlowPlatform, ALogThatHangsHoldsUpNobodyElse)
{
    const std::pair<const char *, const char *> kLines[] = {
        {"create", "createObjJsonStr"},
        {"create", "buffer ={"},
        {"refresh", "Json_Out_Str"},
        {"delete", "Json_Out_Str"},
    };
    for (const auto &[name, text] : kLines)
    {
        SCOPED_TRACE(std::string(name) + ": " + text);
        const auto story =
            std::ranges::find(kStories, std::string(name), &Story::name);
        Hang(*story, "vexoprintf", {.text = text});
    }
}

// --- Objects that are replaced, or change quickly ----------------------------

// Types whose creates wait for the end of a delete, and types whose don't.
constexpr uint16_t kReplaced[] = {
    0x16,  0x17, 0x1B, 0x42, 0x49,   0x802, 0x80C, 0xD04, 0x5E, 0xE1,
    0x801, 0x18, 0x40, 0x36, 0x1001, 0xEB,  0x220, 0xA03, 0x5D, 0xC003,
};
constexpr uint32_t kFirstReplaced = 0x10000;
constexpr uint32_t kReplacedCount = 200;
constexpr uint32_t kFirstOfBurst = 0x20000;

// With a status that tells which life of the object this is.
void Bring(uint32_t oid, uint8_t status)
{
    const uint16_t type = kReplaced[oid % std::size(kReplaced)];
    PutChild(type, oid, kParent, "{}", false);
    EXPECT_EQ(standin::SetStatus(oid, status, false), "");
    standin::SendObjectList(kCreateEvent, Words{oid});
}

void DelayFetches(unsigned microseconds, bool late)
{
    ASSERT_EQ(standin::SetDelay(
                  "ZOILGetObjByOID",
                  {.microseconds = microseconds, .random = true, .late = late}),
              "");
}

// One burst: each object goes and comes back, others come between.
void Replace(Mirror &mirror, int burst)
{
    Words others;
    for (uint32_t i = 0; i < kReplacedCount; ++i)
    {
        Delete({kFirstReplaced + i});
        Bring(kFirstReplaced + i, static_cast<uint8_t>(1 + burst % 200));
        if (i % 3 == 0)
        {
            others.push_back(kFirstOfBurst + i);
            Bring(others.back(), 0);
        }
    }
    mirror.Settle();
    ASSERT_EQ(Unequal(mirror), Lines{}) << "burst " << burst;
    Delete(others);
    mirror.Settle();
}

TEST(SlowPlatform, ReplacedObjectsAreNeitherMissingNorOld)
{
    const char *bursts = std::getenv("QDB_TEST_BURSTS");
    Mirror mirror({.threads = true});
    PutParent(mirror);
    for (uint32_t i = 0; i < kReplacedCount; ++i)
    {
        Bring(kFirstReplaced + i, 0);
    }
    mirror.Settle();
    for (int i = 0; i < (bursts == nullptr ? 3 : std::atoi(bursts)); ++i)
    {
        standin::ReleaseDelays();
        DelayFetches(6000, i % 2 == 1);
        Replace(mirror, i);
        if (HasFatalFailure())
        {
            return;
        }
    }
}

TEST(SlowPlatform, ARowEndsAsItsObjectDoes)
{
    constexpr uint32_t kObjects = 50;
    Mirror mirror({.threads = true});
    for (uint32_t oid = 1; oid <= kObjects; ++oid)
    {
        PutObject(kStatus, 0x100 + oid, "{}", true);
    }
    mirror.Settle();
    DelayFetches(3000, true);
    for (int round = 0; round < 3; ++round)
    {
        for (uint32_t oid = 1; oid <= kObjects; ++oid)
        {
            for (const char *name : {"first", "second"})
            {
                Set(0x100 + oid,
                    R"({"popName": ")" + (name + std::to_string(round)) + "\"}",
                    true);
            }
        }
        mirror.Settle();
        EXPECT_EQ(Unequal(mirror), Lines{}) << "round " << round;
    }
}

} // namespace
} // namespace qdb::test
