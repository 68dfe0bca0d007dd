// An object that changes, goes or comes back while somebody carries what it was
// to its row, and whose event another worker works off first: whoever comes
// second must not write the past.

#include "config/config_load.h"
#include "config/key_reload.h"
#include "core/json.h"
#include "events/bus_dispatch.h"
#include "events/dispatch.h"
#include "events/status_change.h"
#include "events/workers.h"
#include "reconcile/count_check.h"
#include "reconcile/fail_drain.h"
#include "reconcile/fru_reload.h"
#include "reconcile/key_reload.h"
#include "reconcile/memory_reload.h"
#include "reconcile/population.h"
#include "reconcile/type_reload.h"
#include "tests/support/config_bytes.h"
#include "tests/support/reload_fixture.h"

#include <thread>

namespace qdb::test
{
namespace
{

constexpr uint32_t kOid = 7;
constexpr uint16_t kDirty = 3;
constexpr uint16_t kCreate = 7;
constexpr uint16_t kDestroy = 8;
constexpr char kKey[] = "Tarnu.Embedded.1#SerialCapture.1#SerialDataSize";
const std::string kPath = "/com/vexo/tarnu/Config/Attributes/tarnu_embedded_1/"
                          "serialcapture_1/serialdatasize";
constexpr char kInterface[] = "com.vexo.tarnu.Config.CfgIntAttribute";

// A way to the row, and what it needs to have something to write.
struct Way
{
    const char *name;
    uint16_t type; // TYPE_CFGINT: an attribute
    const char *values;
    const char *oldValues; // of the row at the beginning; NULL: there is none
    const char *handler;   // that writes
    std::function<void()> run;
};

bool IsAttribute(const Way &way)
{
    return way.type == TYPE_CFGINT;
}

std::string TableOf(const Way &way)
{
    return FindRow(way.type)->table->name;
}

void RemoveObject(const Way &way)
{
    IsAttribute(way) ? standin::RemoveAttribute(kKey)
                     : standin::DeleteObjects(Words{kOid}, false);
}

void PutVersion(const Way &way, int status, const char *values)
{
    const JsonPtr json(json_loads(values, 0, nullptr));
    json_object_set_new(json.get(), "DOH_ObjStatus", json_integer(status));
    RemoveObject(way);
    ASSERT_EQ(
        IsAttribute(way)
            ? standin::PutAttribute(kInterface, kKey, json.get(), kOid)
            : standin::CreateObject({way.type, kOid, {}, json.get()}, false),
        "");
}

// Works an event off.
void NotifyList(uint16_t kind)
{
    const Bytes record = test::List(kind, Words{kOid});
    static_cast<void>(ObjectNotification(EventOf(record), kind));
}

void NotifyAttribute(uint16_t kind)
{
    const Bytes record = BusRecord(kind, kOid, kPath, kInterface);
    static_cast<void>(ObjectNotificationDbus(EventOf(record), 65533));
}

// The same, as another worker does.
void Tell(const Way &way, uint16_t kind)
{
    std::thread(IsAttribute(way) ? NotifyAttribute : NotifyList, kind).join();
}

void KeepFailure(FailedOperation operation, int index)
{
    // The newest one stays.
    for (const uint32_t oid : {kOid, kOid + 1})
    {
        QdbFailenQueue(gFailQueue, oid, operation, index);
    }
    DrainFailQueue();
}

void NotifyStatus()
{
    const Bytes object = MakeObject(kStatus, kOid, "{}", 1);
    const Bytes record =
        Record(4, {0}, std::string(object.begin(), object.end()));
    static_cast<void>(ObjectNotificationStChg(EventOf(record)));
}

constexpr char kSystem[] = R"({"Key": "91||System.Embedded.1"})";
constexpr char kOldSystem[] =
    R"({"Key": "91||System.Embedded.1", "HostName": "old"})";
constexpr char kFru[] = R"({"Key": "Disk.Bay.1", "SerialNumber": "new"})";
constexpr char kOldFru[] = R"({"Key": "Disk.Bay.1", "SerialNumber": "old"})";
constexpr char kDimm[] = R"({"Key": "DIMM.A1"})";
constexpr char kOldDimm[] = R"({"Key": "A1"})";

// clang-format off
const Way kWays[] = {
    {"create", kStatus, "{}", nullptr, "Create", [] { NotifyList(kCreate); }},
    {"change", kStatus, "{}", "{}", "Refresh", [] { NotifyList(kDirty); }},
    {"status change", kStatus, "{}", "{}", "Refresh", NotifyStatus},
    {"root data behind a detach", 0x900, "{}", nullptr, "Create", [] { InsertObjBasedOnObjType(0x900); }},
    {"drain of a missed refresh", 0x16, "{}", nullptr, "Create", [] { KeepFailure(FailedOperation::RefreshFailure, QdbFailObjTypeIndex(0x16)); }},
    {"drain of a create", 0x16, "{}", nullptr, "Create", [] { KeepFailure(FailedOperation::Create, QdbFailObjTypeIndex(0x16)); }},
    {"drain of a refresh", 0xA03, "{}", "{}", "Refresh", [] { KeepFailure(FailedOperation::Refresh, 0); }},
    {"count check", 0x1001, "{}", nullptr, "Create", CheckDMObjCountandReCreateEntries},
    {"reload of memory", 0xE1, kDimm, kOldDimm, "Create", ReLoadNCObjects},
    {"reload of a board", 0x42, kFru, kOldFru, "Refresh", ReLoadFRUNCObjects},
    {"reload of a device", 0xEB, "{}", nullptr, "Create", ObjTypeBasedNCObjects},
    {"reload of a device that has changed", 0xEB, "{}", "{}", "Create", ObjTypeBasedNCObjects},
    {"reload of the keyed object", 0x91, kSystem, kOldSystem, "Refresh", ReLoadKeyBasedNCObjects},
    {"attribute's create", TYPE_CFGINT, "{}", nullptr, "Create", [] { NotifyAttribute(kCreate); }},
    {"attribute's change", TYPE_CFGINT, "{}", "{}", "Refresh", [] { NotifyAttribute(kDirty); }},
    {"load of attributes", TYPE_CFGINT, "{}", nullptr, "Create", [] { OnLoadConfigObjectsCreation(kInterface, nullptr); }},
    // What turns out to be out of date is left to the next pass.
    {"reload of the keyed attribute", TYPE_CFGINT, "{}", nullptr, "Create", [] { ReLoadCfgKeyBasedNCObjects(); ReLoadCfgKeyBasedNCObjects(); }},
};
// clang-format on

struct Overtaken : NcReload
{
    // The Data Manager's object has the status 1 then, a row 0.
    void Prepare(const Way &way)
    {
        Clear();
        if (way.type != 0x91)
        {
            PutObject(0x91, 91, kSystem);
        }
        const bool hasRow = way.oldValues != nullptr;
        const char *oldValues = hasRow ? way.oldValues : way.values;
        // What reloads remember is of another object.
        PutVersion(way, 9, oldValues);
        Tell(way, kCreate);
        way.run();
        RemoveObject(way);
        Tell(way, kDestroy);
        if (hasRow)
        {
            PutVersion(way, 0, oldValues);
            Tell(way, kCreate);
        }
        PutVersion(way, 1, way.values);
        Kept();
        Restart();
    }

    Lines Row(const Way &way)
    {
        return mirror_.Rows("SELECT DOH_ObjStatus FROM " + TableOf(way) +
                            " WHERE OID = " + std::to_string(kOid));
    }
};

TEST_F(Overtaken, NobodyWritesThePast)
{
    for (const Way &way : kWays)
    {
        for (const char *story : {"goes", "changes", "is replaced"})
        {
            SCOPED_TRACE(std::string(way.name) + ", " + story);
            Prepare(way);
            const bool goes = *story == 'g';
            const LineHook hook(
                std::string(way.handler) + "Obj_" + FindRow(way.type)->suffix +
                    " Entry for OID: 7",
                [&](int count)
                {
                    if (count != 1)
                    {
                        return;
                    }
                    RemoveObject(way);
                    if (*story != 'c')
                    {
                        Tell(way, kDestroy);
                    }
                    if (!goes)
                    {
                        PutVersion(way, 2, way.values);
                        Tell(way, *story == 'c' ? kDirty : kCreate);
                    }
                });
            way.run();
            EXPECT_GE(hook.Count(), 1) << "nothing was written";
            EXPECT_EQ(Row(way), goes ? Lines() : Lines{"2"});
        }
    }
}

void RunWorker(int number)
{
    QdbWorkerArg argument = {number};
    QdbWorkerThread(&argument);
}

// A restart of the configuration manager clears its rows, and takes its time;
// what the manager announces when it is back must not go with them.
TEST_F(Overtaken, AClearingTakesNothingThatIsAnnouncedBehindIt)
{
    static DataEventHeader stops[2] = {{0, DATA_EVENT_WORKER_EXIT, 0, {}},
                                       {0, DATA_EVENT_WORKER_EXIT, 0, {}}};
    const auto rows = [&]
    {
        return mirror_.Rows("SELECT OID FROM TblIntAttribute");
    };
    Clear();
    PutAttribute(kInterface, kKey, kOid);
    Enqueue(Record(DATA_EVENT_DBUS_TO_QDB, {DATA_EVENT_POP_UNLOADED, 0, 0, 0}));
    Enqueue(BusRecord(kCreate, kOid, kPath, kInterface));
    QdbenQueue(gQdbEventQueue, &stops[0]);
    QdbenQueue(gQdbEventQueue, &stops[1]);
    std::thread second;
    const LineHook hook("Clearing table Cfg from ActiveOIDMapping.",
                        [&](int)
                        {
                            second = std::thread(RunWorker, 2);
                            // It has this long to run ahead.
                            constexpr int kAheadMs = 300;
                            WaitUntil(
                                [&]
                                {
                                    return !rows().empty();
                                },
                                kAheadMs);
                        });
    RunWorker(1);
    ASSERT_TRUE(second.joinable());
    second.join();
    EXPECT_EQ(rows(), Lines{std::to_string(kOid)});
}

} // namespace
} // namespace qdb::test
