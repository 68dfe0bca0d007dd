#include "tests/support/works.h"

#include "config/config_load.h"
#include "config/config_objects.h"
#include "config/key_reload.h"
#include "core/gate.h"
#include "core/json.h"
#include "events/workers.h"
#include "reconcile/fru_reload.h"
#include "reconcile/key_reload.h"
#include "reconcile/type_reload.h"
#include "tests/support/config_bytes.h"

namespace qdb::test
{
namespace
{

constexpr uint32_t kOid = kWorkOid;
constexpr uint32_t kParent = 0x70;
constexpr char kKey[] = "A.1#B.1#C";

// The three that each object and attribute has.
struct Begins
{
    Action create;
    Action refresh;
    Action destroy;
};

std::vector<Work> OfEvents(const std::string &name, const Begins &begins,
                           const std::function<Bytes(uint16_t)> &record,
                           const Lines &tables)
{
    return {OfWorker(name + " create", begins.create,
                     record(DATA_EVENT_DATA_OBJ_CREATE), tables),
            OfWorker(name + " refresh", begins.refresh,
                     record(DATA_EVENT_DATA_OBJ_DIRTY_LIST), tables),
            OfWorker(name + " destroy", begins.destroy,
                     record(DATA_EVENT_DATA_OBJ_DESTROY), tables)};
}

void PutKey(const std::string &name, const char *value, const char *key = kKey)
{
    const JsonPtr values(json_pack("{s:s}", "DisplayName", value));
    EXPECT_EQ(standin::PutAttribute(name, key, values.get(), kOid), "");
}

void LoadAttributes(const std::string &name)
{
    ConfigObjectList groups;
    EXPECT_EQ(groups.Fetch(kConfigGroup), 0);
    OnLoadConfigObjectsCreation(("com.vexo.tarnu.Config." + name).c_str(),
                                &groups);
}

// An attribute's, by the bus.
std::vector<Work> OfAttribute(const std::string &name)
{
    const auto old = [=]
    {
        PutKey(name, "a");
        LoadAttributes(name);
        PutKey(name, "b");
    };
    const auto gone = [=]
    {
        old();
        EXPECT_EQ(standin::RemoveAttribute(kKey), "");
    };
    const auto put = [=]
    {
        PutKey(name, "b");
    };
    const auto record = [=](uint16_t kind)
    {
        return BusRecord(kind, kOid, standin::AttributePath(kKey),
                         "com.vexo.tarnu.Config." + name);
    };
    return OfEvents(name, {put, old, gone}, record,
                    {"Tbl" + name.substr(std::strlen("Cfg"))});
}

// A status change of an object that has changed since its row was written.
Work OfReload(const std::string &name, const Action &begin, uint16_t type,
              const std::string &values, const std::string &table)
{
    const auto change = [=]
    {
        begin();
        standin::DeleteObjects(Words{kOid}, false);
        PutObject(type, kOid, values);
    };
    const Bytes object = MakeObject(type, kOid, values);
    Work work = OfWorker(
        name, change, Record(4, {0}, {object.begin(), object.end()}), {table});
    work.isOnce = true;
    return work;
}

std::string System(const std::string &host)
{
    return R"({"Key": "91||System.Embedded.1", "HostName": ")" + host + "\"}";
}

void PutSystem(uint32_t oid)
{
    PutObject(0x91, oid, System("old"));
    MakeRow(MakeObject(0x91, oid, System("old")));
}

// What a reload has seen, or has not.
void MakeRowOfAny()
{
    PutSystem(kParent); // without it all is passed over
    MakeRow(MakeObject(kStatus, kOid));
}

void MakeRowOfMemory()
{
    MakeRow(MakeObject(0xE1, kOid, R"({"Key": "A1"})"));
}

void ForgetFru()
{
    ClearFRUCacheEntry(kOid);
    MakeRow(MakeObject(0x42, kOid));
}

void ForgetTypes()
{
    standin::SetFault("ZOILListChildOIDByType", 0, 2);
    EXPECT_EQ(ObjTypeBasedNCObjects(), ZO_STATUS_NO_SUCH_OBJECT);
}

void SeeSystem()
{
    PutSystem(kOid);
    EXPECT_EQ(ReLoadKeyBasedNCObjects(), 0);
}

std::vector<Work> Reloads()
{
    constexpr char kFru[] = R"({"Key": "Disk.Bay.1", "SerialNumber": "S"})";
    return {
        OfReload("any", MakeRowOfAny, kStatus, R"({"popName": "b"})",
                 "TblDMStatus_Child_Obj"),
        OfReload("memory", MakeRowOfMemory, 0xE1, R"({"Key": "DIMM.A1"})",
                 "TblMemoryInfo"),
        OfReload("fru", ForgetFru, 0x42, kFru, "TblFRUObj"),
        OfReload("type", ForgetTypes, 0xEB, R"({"productName": "b"})",
                 "TblDevBLT"),
        OfReload("key", SeeSystem, 0x91, System("new"), "TblSystemInfo"),
    };
}

Bytes Disk(const std::string &model)
{
    return MakeObject(0x304, kOid, R"({"modelName": ")" + model + R"("})");
}

} // namespace

void PutWithRow(const Bytes &object)
{
    Put(object);
    MakeRow(object);
}

Work OfWorker(const std::string &name, const Action &begin, const Bytes &record,
              const Lines &tables)
{
    Work work = {name, begin, kNothing, tables};
    work.record = record;
    work.feed = [record]
    {
        static DataEventHeader stop = {0, DATA_EVENT_WORKER_EXIT, 0, {}};
        Enqueue(record);
        QdbenQueue(gQdbEventQueue, &stop);
    };
    work.run = []
    {
        QdbWorkerArg argument = {1};
        QdbWorkerThread(&argument);
    };
    return work;
}

std::vector<Work> OfObject(const std::string &name, const Bytes &before,
                           const Bytes &after, const Lines &tables)
{
    const auto put = [=]
    {
        PutWithRow(Status(kParent, "p", 0));
        Put(after, {kParent});
    };
    const auto old = [=]
    {
        put();
        EXPECT_EQ(Create(before, HeaderOf(Status(kParent, "p", 0))), 0);
    };
    const auto gone = [=]
    {
        old();
        standin::DeleteObjects(Words{kOid}, false);
    };
    const auto record = [](uint16_t kind)
    {
        return List(kind, Words{kOid});
    };
    return OfEvents(name, {put, old, gone}, record, tables);
}

std::vector<Work> WorksOfWorkers()
{
    const Lines status = {"TblDMStatus_Child_Obj"};
    const Lines lists = {"TblSoftwareInventoryMetaDataObject",
                         "INTEGERARR_TblSoftwareInventoryMetaDataObject"};
    // clang-format off
    const std::vector<Work> groups[] = {
        OfObject("plain", Status(kOid, "a", 1), Status(kOid, "b", 2), status),
        OfObject("linked", Disk("a"), Disk("b"), {"TblRAID_PhysicalDisk"}),
        OfObject("array", List(kOid, "1, 2, 3"), List(kOid, "1, 7, 3"), lists),
        OfAttribute("CfgIntAttribute"),
        {OfAttribute("CfgStrAttribute")[0]},
        {OfAttribute("CfgEnumAttribute")[0]},
        {OfAttribute("CfgPasswdAttribute")[0]},
        Reloads(),
    };
    // clang-format on
    std::vector<Work> works;
    for (const std::vector<Work> &group : groups)
    {
        works.insert(works.end(), group.begin(), group.end());
    }
    return works;
}

Work OfConfiguration()
{
    const auto put = []
    {
        PutAttribute("CfgIntAttribute", "A.1#B.1#I");
        PutAttribute("CfgPasswdAttribute", "A.1#B.1#P");
    };
    const auto reload = []
    {
        EnterGateForOther();
        ReloadConfigObjectsThread(nullptr);
    };
    return {"configuration",
            put,
            reload,
            {"TblIntAttribute", "TblPasswdAttribute"}};
}

} // namespace qdb::test
