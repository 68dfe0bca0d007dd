#include "tests/stream_steps.h"

#include "config/config_load.h"
#include "config/key_reload.h"
#include "config/raw_data.h"
#include "core/gate.h"
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

#include <fstream>
#include <map>

namespace qdb::test
{
namespace
{

// What a line is about, the word before not counted.
class Arguments
{
  public:
    explicit Arguments(const json_t *line) : line_(line)
    {
    }

    size_t Size() const
    {
        return json_array_size(line_) - 1;
    }
    json_t *At(size_t i) const
    {
        return json_array_get(line_, i + 1);
    }
    uint32_t Number(size_t i, uint32_t otherwise = 0) const
    {
        return i < Size() ? NumberOf(At(i)) : otherwise;
    }
    const char *Text(size_t i) const
    {
        return json_string_value(At(i));
    }

  private:
    const json_t *line_;
};

std::string TextOf(const json_t *values)
{
    const JsonText text(json_dumps(values, 0));
    return text == nullptr ? "{}" : text.get();
}

Bytes ObjectOf(const json_t *description)
{
    if (!json_is_array(description))
    {
        return standin::ObjectBytes(NumberOf(description));
    }
    Bytes object = MakeObject(
        static_cast<uint16_t>(NumberOf(json_array_get(description, 0))),
        NumberOf(json_array_get(description, 1)),
        TextOf(json_array_get(description, 2)));
    const Words patch = NumbersOf(json_array_get(description, 3));
    for (size_t i = 1; i < patch.size(); ++i)
    {
        object.at(patch[0] + i - 1) = static_cast<uint8_t>(patch[i]);
    }
    return object;
}

// --- What there is before a step ---------------------------------------------

// An object, and its parents: nobody is told.
int PutObjectOf(const Arguments &about)
{
    EXPECT_EQ(
        standin::PutRawObject(ObjectOf(about.At(0)), ParentsOf(about.At(1))),
        "");
    return 0;
}

// The row of an object that need not be there, and its parent.
int CreateRow(const Arguments &about)
{
    const Bytes parent = standin::ObjectBytes(about.Number(1));
    EXPECT_EQ(Create(ObjectOf(about.At(0)),
                     parent.empty() ? nullptr : HeaderOf(parent)),
              0);
    return 0;
}

// An object of the stand-in's making, without parents: its type, OID, values,
// and the key that it is looked up by.
int MakeObjectOf(const Arguments &about)
{
    const char *key = about.Text(3);
    const standin::ObjectSpec spec = {static_cast<uint16_t>(about.Number(0)),
                                      about.Number(1),
                                      {},
                                      about.At(2),
                                      key == nullptr ? "" : key};
    EXPECT_EQ(standin::CreateObject(spec, false), "");
    return 0;
}

int LetGo(const Arguments &about)
{
    standin::DeleteObjects(Words{about.Number(0)}, false);
    return 0;
}

// A function of the platform fails: with a status, so often, after so many.
int FailCall(const Arguments &about)
{
    standin::SetFault(about.Text(0), static_cast<int>(about.Number(1)),
                      static_cast<int>(about.Number(2)),
                      static_cast<int>(about.Number(3)));
    return 0;
}

// Interface, key, OID and values.
int PutAttributeOf(const Arguments &about)
{
    EXPECT_EQ(standin::PutAttribute(about.Text(0), about.Text(1), about.At(3),
                                    about.Number(2)),
              "");
    return 0;
}

int RemoveAttributeOf(const Arguments &about)
{
    EXPECT_EQ(standin::RemoveAttribute(about.Text(0)), "");
    return 0;
}

// A failure that was kept: OID, operation (0 delete, 1 create, 2 refresh, 3
// refresh of no row) and type.
int KeepFailure(const Arguments &about)
{
    QdbFailenQueue(gFailQueue, about.Number(0),
                   static_cast<FailedOperation>(about.Number(1)),
                   QdbFailObjTypeIndex(about.Number(2)));
    return 0;
}

constexpr int kRawDescriptor = 99;

// The file that is imported, in which "?" stands for a byte that no UTF-8 has.
// A descriptor has the same path in every run.
int WriteRawFile(const Arguments &about)
{
    std::string content = about.Text(0);
    std::ranges::replace(content, '?', '\xFF');
    const int made = memfd_create("raw", MFD_CLOEXEC);
    EXPECT_EQ(write(made, content.data(), content.size()),
              static_cast<ssize_t>(content.size()));
    EXPECT_EQ(dup2(made, kRawDescriptor), kRawDescriptor);
    close(made);
    return 0;
}

// --- What is carried out -----------------------------------------------------

constexpr uint16_t kFromBus = 65533;
constexpr char kKey[] = "Test.1#Group.1#Name";

// The Data Manager's record of the kind about the OIDs.
int Notify(const Arguments &about)
{
    const uint16_t kind = KindOf(about.At(0));
    return ObjectNotification(EventOf(List(kind, NumbersOf(about.At(1)))),
                              kind);
}

// The bus's record of the kind about the attribute, by its OID or another.
int NotifyByBus(const Arguments &about)
{
    const Bytes record = BusRecord(KindOf(about.At(0)), about.Number(1, 17),
                                   standin::AttributePath(kKey),
                                   "com.vexo.tarnu.Config.CfgIntAttribute");
    return ObjectNotificationDbus(EventOf(record), kFromBus);
}

// A status change that comes with the object.
int NotifyStatus(const Arguments &about)
{
    const Bytes object = ObjectOf(about.At(0));
    return ObjectNotificationStChg(
        EventOf(Record(4, {0}, {object.begin(), object.end()})));
}

int ReloadAttributes()
{
    EXPECT_TRUE(EnterGate());
    EXPECT_EQ(ReloadConfigObjectsThread(nullptr), nullptr);
    return 0;
}

int Fetch(const Arguments &about)
{
    DataObjHeader *fetched = nullptr;
    const int status = dbus_get_data_obj_hdr(
        about.Number(0), standin::AttributePath(kKey).c_str(), &fetched);
    EXPECT_EQ(fetched, nullptr);
    return status;
}

// The group of an attribute's path.
int FetchGroup(const Arguments &about)
{
    DataObjHeader *fetched = nullptr;
    const int status = GetCfgGroupByPath(about.Text(0), &fetched);
    const ConfigObjectPtr owner(fetched);
    EXPECT_STREQ(fetched == nullptr ? "none" : GetCfgObjectKey(fetched),
                 status == 0 ? "Test.1#Group.1" : "none");
    return status;
}

int ImportRaw()
{
    const std::string texts("certs.1#PLAIN\0/proc/self/fd/99\0", 31);
    return ObjectNotificationRawData(EventOf(Record(1130, {24, 38}, texts)),
                                     1130);
}

constexpr uint32_t kMappedOid = 0x80000010;

int Map(const Arguments &about)
{
    const uint32_t type = about.Number(0);
    return insertinActiveOIDMapping(kMappedOid, type,
                                    PatienceOf(*FindRow(type)));
}

int MapInBacklog(const Arguments &about)
{
    gSkipConstraintCheck = 1;
    const int result = Map(about);
    gSkipConstraintCheck = 0;
    return result;
}

using Word = int (*)(const Arguments &);

// A word that is about nothing.
template <int (*kFunction)()>
int Plain(const Arguments & /*about*/)
{
    return kFunction();
}

// clang-format off
const std::map<std::string, Word> kWords = {
    {"put", PutObjectOf},
    {"create", CreateRow},
    {"make", MakeObjectOf},
    {"gone", LetGo},
    {"fault", FailCall},
    {"attribute", PutAttributeOf},
    {"no attribute", RemoveAttributeOf},
    {"failed", KeepFailure},
    {"raw file", WriteRawFile},
    {"event", Notify},
    {"bus", NotifyByBus},
    {"status", NotifyStatus},
    {"restart", [](const Arguments &) { return ObjectNotificationDbus(EventOf(Record(kFromBus, {23, 0, 0, 0})), kFromBus); }},
    {"everything", Plain<OnLoadObjectsCreation>},
    {"memory", Plain<ReLoadNCObjects>},
    {"frus", Plain<ReLoadFRUNCObjects>},
    {"keyed object", Plain<ReLoadKeyBasedNCObjects>},
    {"keyed attributes", Plain<ReLoadCfgKeyBasedNCObjects>},
    {"devices", Plain<ObjTypeBasedNCObjects>},
    {"counts", Plain<CheckDMObjCountandReCreateEntries>},
    {"clear all", [](const Arguments &) { return ClearTableData("ActiveOIDMapping"); }},
    {"clear type", [](const Arguments &) { return ClearTblDatabyObjType(kStatus); }},
    {"clear attributes", Plain<ClearCfgMgrData>},
    {"reload attributes", Plain<ReloadAttributes>},
    {"fetch", Fetch},
    {"fetch nowhere", [](const Arguments &) { return dbus_get_data_obj_hdr(0x4051, "/x", nullptr); }},
    {"group", FetchGroup},
    {"import raw", Plain<ImportRaw>},
    {"map", Map},
    {"map in backlog", MapInBacklog},
    {"type of mapped", [](const Arguments &) { return static_cast<int>(GetObjType(kMappedOid)); }},
    {"one type", [](const Arguments &about) { return InsertObjBasedOnObjType(about.Number(0)); }},
};
// clang-format on

std::vector<std::pair<std::string, Fault>> FaultList(const json_t *list)
{
    std::vector<std::pair<std::string, Fault>> faults;
    for (const json_t *fault : Elements(list))
    {
        const json_t *times = json_array_get(fault, 2);
        faults.push_back(
            {json_string_value(json_array_get(fault, 0)),
             {static_cast<int>(NumberOf(json_array_get(fault, 1))),
              times == nullptr ? kForever
                               : static_cast<int>(NumberOf(times))}});
    }
    return faults;
}

} // namespace

JsonPtr LoadSteps(const std::string &name)
{
    const std::string path =
        std::string(std::getenv("QDB_TEST_SOURCE")) + "/tests/data/" + name;
    json_error_t error = {};
    JsonPtr file(json_load_file(path.c_str(), JSON_REJECT_DUPLICATES, &error));
    EXPECT_NE(file, nullptr)
        << path << ": " << error.line << ": " << error.text;
    return file;
}

Faults FaultsOf(const json_t *step)
{
    return {FaultList(json_object_get(step, "fail")),
            FaultList(json_object_get(step, "unprepared")),
            static_cast<int>(NumberOf(json_object_get(step, "skip")))};
}

uint32_t NumberOf(const json_t *word)
{
    return json_is_string(word)
               ? static_cast<uint32_t>(
                     std::stoul(json_string_value(word), nullptr, 16))
               : static_cast<uint32_t>(json_integer_value(word));
}

std::vector<json_t *> Elements(const json_t *array)
{
    std::vector<json_t *> elements;
    for (size_t i = 0; i < json_array_size(array); ++i)
    {
        elements.push_back(json_array_get(array, i));
    }
    return elements;
}

Words NumbersOf(const json_t *array)
{
    Words numbers;
    std::ranges::transform(Elements(array), std::back_inserter(numbers),
                           NumberOf);
    return numbers;
}

Words ParentsOf(const json_t *given)
{
    return given == nullptr ? Words{kParentOid} : NumbersOf(given);
}

uint16_t KindOf(const json_t *word)
{
    static const std::map<std::string, uint16_t> kKinds = {
        {"create", kCreate},
        {"refresh", kDirty},
        {"destroy", kDestroy},
        {"create once", kCreateOnce},
        {"refresh once", kRefreshOnce},
    };
    return kKinds.at(json_string_value(word));
}

int RunLine(const json_t *file, const json_t *line)
{
    const char *word = json_string_value(json_array_get(line, 0));
    const json_t *shared =
        json_object_get(json_object_get(file, "shared"), word);
    for (const json_t *part : Elements(shared))
    {
        RunLine(file, part);
    }
    return shared == nullptr ? kWords.at(word)(Arguments(line)) : 0;
}

} // namespace qdb::test
