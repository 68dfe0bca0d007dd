#include "tests/sweep/scenario.h"

#include "core/ready.h"
#include "core/sleep.h"
#include "core/state.h"
#include "queues/event_queue.h"
#include "standin/standin.h"
#include "tests/support/audited.h"
#include "tests/support/change_listener.h"
#include "tests/support/event_records.h"
#include "tests/support/wait.h"
#include "tests/sweep/fault.h"
#include "tools/dmctl/config_bus.h"

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <set>

namespace qdb::sweep
{
namespace
{

using test::Words;

// --- What the log tells ------------------------------------------------------

std::atomic<bool> gHasEnded = false;
std::atomic<int> gStarted = 0; // workers that have begun to wait
std::atomic<int> gPasses = 0;
std::atomic<int> gReloads = 0; // behind detaches
std::atomic<int> gFences = 0;  // signals that workers have met

struct Sign
{
    const char *text;
    std::atomic<int> &count;
};
Sign gSigns[] = {
    {"Call QdbdeQueue for thID=", gStarted},
    {"end of loop", gPasses},
    {"Reload Config Objects - ", gReloads},
    {"path =  /fence", gFences},
};

void ReadLine(int /*level*/, const char *line)
{
    for (const Sign &sign : gSigns)
    {
        sign.count += std::strstr(line, sign.text) != nullptr ? 1 : 0;
    }
}

// --- Time --------------------------------------------------------------------

constexpr unsigned kTurnOfPause = 5000; // between passes there are a thousand
constexpr int kPatienceMs = 300;        // for what a fault may keep away
constexpr int kHangMs = 30;
std::atomic<bool> gWantsPass = false;

void Sleep(unsigned microseconds)
{
    if (microseconds == kTurnOfPause && !gWantsPass)
    {
        usleep(1000);
    }
    else if (microseconds < kTurnOfPause)
    {
        usleep(100);
    }
}

template <typename Condition>
void Await(Condition condition, int patienceMs = kPatienceMs)
{
    const auto isOver = [&]
    {
        return HasEnded() || condition();
    };
    if (!test::WaitUntil(isOver, kHangMs))
    {
        LetGo();
        test::WaitUntil(isOver, patienceMs);
    }
}

void AwaitRest()
{
    Await(
        []
        {
            return standin::WaitDelivered(1) && QdbEventQSize == 0;
        });
}

// --- The managers ------------------------------------------------------------

constexpr size_t kTypes = 159;
constexpr uint32_t kParent = 0x500;
constexpr uint32_t kStatus = 0x600; // plain, with parents
constexpr uint32_t kList = 0x601;   // with an array
constexpr uint32_t kJoined = 0x602; // with joined lists
constexpr uint32_t kWide = 0x603;   // that is read by columns
constexpr uint32_t kJob = 0x604;    // whose failures are kept
constexpr uint32_t kSlot = 0x605;   // of a type with two tables
constexpr uint32_t kModule = 0x606;
constexpr uint32_t kNvdimm = 0x607;
constexpr uint32_t kBoard = 0x608;
constexpr uint32_t kBezel = 0x609;
constexpr uint32_t kStick = 0x60A;
constexpr uint32_t kSystem = 0x60B;
constexpr uint32_t kNew = 0x700; // added to those: made in its course

struct Description
{
    uint16_t type;
    uint32_t oid;
    const char *values;
    const char *changed;
};

// clang-format off
constexpr Description kObjects[] = {
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

struct Setting
{
    const char *interface;
    const char *key;
    const char *changed;
};
constexpr Setting kSettings[] = {
    {"CfgIntAttribute", "A.1#B.1#I", R"({"currentValue":7})"},
    {"CfgStrAttribute", "A.1#B.1#S", R"({"CurrentValue":"s"})"},
    {"CfgEnumAttribute", "A.1#B.1#E", R"({"CurrentValue":"e"})"},
    {"CfgPasswdAttribute", "A.1#B.1#P", R"({"CurrentValue":"p"})"},
    {"CfgStrAttribute", "A.1#B.1#AppRawData1", R"({"DisplayName":"d"})"},
    {"CfgIntAttribute", "Tarnu.Embedded.1#SerialCapture.1#SerialDataSize", R"({"DisplayName":"d"})"},
};
// clang-format on

const test::TempRoot *gRoot = nullptr;
std::set<uint32_t> gOids; // of all objects that there ever were

JsonPtr Parse(const char *text)
{
    return JsonPtr(json_loads(text, 0, nullptr));
}

void PutObject(const Description &object, uint32_t oid, bool announce)
{
    const JsonPtr values = Parse(object.values);
    gOids.insert(oid);
    standin::CreateObject({object.type, oid, {kParent}, values.get(), ""},
                          announce);
}

void SetObject(uint32_t oid, const char *values, bool announce)
{
    standin::SetObject(oid, Parse(values).get(), announce);
}

uint32_t SettingOid(const Setting &setting)
{
    return static_cast<uint32_t>(0x40000 + (&setting - kSettings));
}

void PutSetting(const Setting &setting, const char *values = "{}")
{
    standin::PutAttribute(setting.interface, setting.key, Parse(values).get(),
                          SettingOid(setting));
}

// As the configuration manager's signals tell of it.
JsonPtr Announced(const Setting &setting)
{
    return JsonPtr(json_pack("{s:s,s:s,s:s,s:I}", "interface",
                             setting.interface, "key", setting.key, "path",
                             standin::AttributePath(setting.key).c_str(), "oid",
                             json_int_t{SettingOid(setting)}));
}

// --- The play ----------------------------------------------------------------

ConfigBus &Bus()
{
    static ConfigBus bus;
    return bus;
}

test::ChangeListener &Signals()
{
    static test::ChangeListener listener;
    return listener;
}

test::PipeReader &Pipe()
{
    static test::PipeReader reader(gRoot->Pipe());
    return reader;
}

// Whatever was sent before has been heard then. False when it isn't.
bool AwaitBus()
{
    const int before = gFences;
    Bus().SendAdded(JsonPtr(json_pack("{s:s,s:s,s:i}", "interface", "Fence",
                                      "path", "/fence", "oid", 1))
                        .get());
    Await(
        [=]
        {
            return gFences > before;
        });
    AwaitRest();
    return gFences > before;
}

void PlayObjects()
{
    for (const Description &object : kObjects)
    {
        PutObject(object, object.oid + kNew, true);
        SetObject(object.oid, object.changed, true);
    }
    AwaitRest();
    Pipe().TakeBytes();
    for (const Description &object : kObjects)
    {
        SetObject(object.oid + kNew, object.changed, true);
        standin::SetStatus(object.oid, 3);
    }
    AwaitRest();
    standin::DeleteObjects(Words{kStatus + kNew, kList + kNew, kWide + kNew});
    standin::DeleteObjects(Words{kModule + kNew});
    standin::SendRecord(test::List(3, {kStatus + kNew}));
    AwaitRest();
}

void PlaySettings()
{
    const std::string raw = gRoot->Path() + "/raw";
    for (const Setting &setting : kSettings)
    {
        PutSetting(setting, setting.changed);
        Bus().SendChanged(Announced(setting).get(),
                          Parse(setting.changed).get());
    }
    std::ofstream(raw) << "raw data";
    Bus().SendRawData(kSettings[4].key, raw);
    AwaitBus();
    standin::RemoveAttribute(kSettings[0].key);
    Bus().SendRemoved(Announced(kSettings[0]).get());
    AwaitBus();
    PutSetting(kSettings[0]);
    Bus().SendAdded(Announced(kSettings[0]).get());
    for (const std::string &name : AttributeInterfaces({}))
    {
        Bus().SendCommit(name);
    }
    AwaitBus();
    Bus().TakeName();
    Bus().GiveUpName();
    AwaitBus();
}

// What a pass finds by itself.
void PlayPass()
{
    for (const Description &object : kObjects)
    {
        SetObject(object.oid, R"({"DOH_ObjStatus":5})", false);
        SetObject(object.oid, object.changed, false);
    }
    standin::DeleteObjects(Words{kBezel}, false);
    PutObject(kObjects[0], kStatus + 2 * kNew, false);
    PutSetting(kSettings[5], R"({"DisplayName":"other"})");
    const int before = gPasses;
    gWantsPass = true;
    Await(
        [=]
        {
            return gPasses > before;
        });
    gWantsPass = false;
}

// What comes back is a small part: the rest would only do the same again.
void PlayDetach()
{
    const std::vector<uint32_t> ids = standin::ObjectIds();
    Words rest;
    std::ranges::copy_if(ids, std::back_inserter(rest),
                         [](uint32_t oid)
                         {
                             return oid < kParent || oid > kSystem;
                         });
    const int before = gReloads;
    standin::Detach();
    Await(
        [=]
        {
            return gReloads > before;
        });
    standin::DeleteObjects(rest, false);
    standin::Attach();
    AwaitBus();
}

} // namespace

void NoteEnd()
{
    gHasEnded = true;
}

std::string FollowChange(int patienceMs)
{
    Signals().Take();
    Pipe().TakeBytes();
    standin::SetObject(kStatus, Parse(R"({"popName":"told"})").get());
    bool hasSignal = false;
    bool hasRecord = false;
    Await(
        [&]
        {
            hasSignal |= !Signals().Take().empty();
            hasRecord |= !Pipe().TakeBytes().empty();
            return hasSignal && hasRecord;
        },
        patienceMs);
    return std::string(hasSignal ? "" : "no signal ") +
           (hasRecord ? "" : "no record");
}

bool HasEnded()
{
    return gHasEnded;
}

void Fill(const test::TempRoot &root)
{
    gRoot = &root;
    Signals();
    Pipe();
    Bus();
    SetSleepFunction(Sleep);
    standin::SetLog(6, ReadLine);
    const std::string none = standin::GenerateObjects(kTypes, {}, false);
    standin::CreateObject({0x1001, kParent, {}, nullptr, "Parent"}, false);
    for (const Description &object : kObjects)
    {
        PutObject(object, object.oid, false);
    }
    for (const uint32_t oid : standin::ObjectIds())
    {
        gOids.insert(oid);
    }
    for (const Setting &setting : kSettings)
    {
        PutSetting(setting);
    }
}

void Play()
{
    constexpr int kStartMs = 5000;
    Await(
        []
        {
            return gStarted > 0;
        },
        kStartMs);
    Await(
        []
        {
            return standin::IntegerAttribute(kReadyKey, 0) == 1 && gPasses > 0;
        });
    PlayObjects();
    PlaySettings();
    PlayPass();
    PlayDetach();
}

bool AnnounceAll()
{
    standin::SendObjectList(8, Words(gOids.begin(), gOids.end()));
    standin::SendObjectList(7, standin::ObjectIds());
    for (const Setting &setting : kSettings)
    {
        Bus().SendRemoved(Announced(setting).get());
        Bus().SendAdded(Announced(setting).get());
    }
    return AwaitBus();
}

} // namespace qdb::sweep
