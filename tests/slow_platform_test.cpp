// A platform that now and then doesn't answer: nobody but those who need the
// answer waits for it, and no object is lost or left old.

#include "config/config_load.h"
#include "tests/support/managed_objects.h"

#include <future>

namespace qdb::test
{
namespace
{

constexpr uint16_t kStatus = 0x1001;

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
    Lines logged = {};     // a line of each kind hangs as well
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
    PutChild(0x17, kSubject, kParent, R"({"Key": "Speed", "probeReading": 1})");
}

void PutDisk(Mirror &mirror)
{
    PutParent(mirror);
    PutChild(0x304, kSubject, kParent, R"({"modelName": "a"})");
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
    PutChild(type, kSubject, kParent, values);
    mirror.Settle();
    EXPECT_EQ(standin::SetStatus(kSubject, 1), "");
    mirror.Settle();
    SetObject(kSubject, change, false);
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
    Enqueue(BusRecord(kind, kAttribute, standin::AttributePath("A.1#B.1#C"),
                      "com.vexo.tarnu.Config." + interface));
}

void CreateAttribute(const std::string &interface)
{
    PutAttribute(interface, "a");
    TellAttribute(DATA_EVENT_DATA_OBJ_CREATE, interface);
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
    {"create", PutParent, [] { PutChild(0x17, kSubject, kParent, R"({"Key": "Speed"})"); },
     {"createObjJsonStr", "buffer ={"}},
    {"refresh", PutSubject, [] { SetObject(kSubject, R"({"probeReading": 2})"); }, {"Json_Out_Str"}},
    {"refresh with links", PutDisk, [] { SetObject(kSubject, R"({"modelName": "b"})"); }},
    {"delete", PutSubject, [] { DeleteObjects({kSubject}); }, {"Json_Out_Str"}},
    {"status change", [](Mirror &m) { PutSubject(m); PutKeyed(); }, ChangeStatus},
    {"bus create, integer", [](Mirror &) {}, [] { CreateAttribute("CfgIntAttribute"); }},
    {"bus create, text", [](Mirror &) {}, [] { CreateAttribute("CfgStrAttribute"); }, {}, false, "CfgStr"},
    {"bus create, enumeration", [](Mirror &) {}, [] { CreateAttribute("CfgEnumAttribute"); }, {}, false, "CfgEnum"},
    {"bus create, password", [](Mirror &) {}, [] { CreateAttribute("CfgPasswdAttribute"); }, {}, false, "CfgPasswd"},
    {"bus refresh", [](Mirror &) { CreateAttribute("CfgIntAttribute"); },
     [] { PutAttribute("CfgIntAttribute", "b"); TellAttribute(3, "CfgIntAttribute"); }},
    {"bulk load", [](Mirror &) { PutAttribute("CfgIntAttribute", "a"); }, LoadAttributes},
    {"reload of devices",
     [](Mirror &m) { PutReloaded(m, 0xEB, R"({"fwVersion": "a"})", R"({"fwVersion": "b"})"); },
     ChangeStatus, {}, true},
    {"reload of memory",
     [](Mirror &m) { PutReloaded(m, 0xE1, R"({"Key": "A1"})", R"({"Key": "DIMM.A1"})"); },
     ChangeStatus, {}, true},
    {"reload of FRUs",
     [](Mirror &m) { PutReloaded(m, 0x42, R"({"Key": "Disk.Bay.1", "SerialNumber": "a"})", R"({"SerialNumber": "b"})"); },
     ChangeStatus, {}, true},
    {"keyed reload",
     [](Mirror &m) { PutReloaded(m, 0x91, R"({"Key": "91||System.Embedded.1"})", R"({"SysProductName": "b"})"); },
     ChangeStatus, {}, true},
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
        SetObject(0x101, R"({"popName": "changed"})");
        DeleteObjects({0x102});
        DeleteObjects({0x103, 0x104}); // in the callback
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
    Lines unequal = Unequal(SnapshotOf(mirror));
    std::erase_if(unequal,
                  [&](const std::string &line)
                  {
                      return story.isReload &&
                             line.find("DOH_ObjStatus") != std::string::npos;
                  });
    EXPECT_EQ(unequal, Lines{});
}

void HangEveryCall(const Story &story, std::set<std::string> *pCalled)
{
    const std::vector<int> calls = CallsOf(story);
    for (size_t i = 0; i < calls.size(); ++i)
    {
        const std::string call = kAnswers[i];
        const int count = call.starts_with(story.only) ? calls[i] : 0;
        for (int skip = 0; skip < count; ++skip)
        {
            SCOPED_TRACE(call + " " + std::to_string(skip + 1));
            pCalled->insert(call);
            ASSERT_NO_FATAL_FAILURE(Hang(story, call, {.skip = skip}));
        }
    }
    // The log may take its time over what is about to be sent.
    for (const std::string &text : story.logged)
    {
        SCOPED_TRACE(text);
        ASSERT_NO_FATAL_FAILURE(Hang(story, "vexoprintf", {.text = text}));
    }
}

TEST(SlowPlatform, ACallThatHangsHoldsUpNobodyElse)
{
    std::set<std::string> called;
    for (const Story &story : kStories)
    {
        SCOPED_TRACE(story.name);
        ASSERT_NO_FATAL_FAILURE(HangEveryCall(story, &called));
    }
    EXPECT_EQ(called.size(), std::size(kAnswers));
}

} // namespace
} // namespace qdb::test
