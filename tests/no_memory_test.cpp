// Want of memory, swept: for each kind of work the first, second, ... n-th
// allocation fails, until the work needs no more. Whatever the place, the
// service goes on, nothing stays held or under way, and at most one object is
// behind, until the same work comes again.
#include "busintake/match_rules.h"
#include "busintake/signal_thread.h"
#include "config/config_load.h"
#include "config/key_reload.h"
#include "config/raw_data.h"
#include "core/gate.h"
#include "core/json.h"
#include "db/turn.h"
#include "events/listener.h"
#include "publish/telemetry.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"
#include "reconcile/count_check.h"
#include "reconcile/fru_reload.h"
#include "reconcile/key_reload.h"
#include "reconcile/memory_reload.h"
#include "reconcile/population.h"
#include "reconcile/type_reload.h"
#include "tests/support/bus_sender.h"
#include "tests/support/config_bytes.h"
#include "tests/support/reload_fixture.h"
#include "tests/support/stream_clock.h"

#include <filesystem>
#include <fstream>
#include <set>

namespace qdb::test
{
namespace
{

constexpr uint16_t kSystem = 0x91;
constexpr uint16_t kJob = 0xA03;
constexpr uint32_t kOid = 0x51;
constexpr uint32_t kParent = 0x70;
constexpr char kKey[] = "A.1#B.1#C";
const Lines kListTables = {"TblSoftwareInventoryMetaDataObject",
                           "INTEGERARR_TblSoftwareInventoryMetaDataObject"};

using Action = std::function<void()>;
const Action kNothing = [] {};

// One kind of work, from the state that it begins in to what it leaves.
struct Work
{
    std::string name;
    Action begin;
    Action run;
    Lines tables = {};      // whose rows it writes
    Action feed = kNothing; // its input, before each run
    // What is lost stays lost until the object changes: a reload doesn't see a
    // change twice, and a create doesn't write a row twice.
    bool isOnce = false;
    // Rows are also written, and announced, without a value: a joined list, or
    // a file's content, that finds no memory.
    bool leavesOut = false;
    Action settle = kNothing; // waits for what the run has left to others
};

void Enqueue(const Bytes &record)
{
    auto *copy = static_cast<char *>(std::calloc(1, record.size()));
    std::ranges::copy(record, copy);
    QdbenQueue(gQdbEventQueue, reinterpret_cast<DataEventHeader *>(copy));
}

void RunWorker()
{
    QdbWorkerArg argument = {1};
    QdbWorkerThread(&argument);
}

// A worker's life with one record.
Work OfWorker(const std::string &name, const Action &begin, const Bytes &record,
              const Lines &tables)
{
    const auto feed = [record]
    {
        static DataEventHeader stop = {0, DATA_EVENT_WORKER_EXIT, 0, {}};
        Enqueue(record);
        QdbenQueue(gQdbEventQueue, &stop);
    };
    return {name, begin, RunWorker, tables, feed};
}

Work OfReload(const std::string &name, const Action &begin, const Bytes &object,
              const Lines &tables)
{
    Work work = OfWorker(
        name,
        [=]
        {
            begin();
            Put(object);
        },
        Record(4, {0}, {object.begin(), object.end()}), tables);
    work.isOnce = true;
    return work;
}

Bytes Supply(const std::string &name)
{
    return MakeObject(0x15, kOid, R"({"boardProductName": ")" + name + R"("})");
}

// An object's create, refresh and destroy, each by its event. It has a parent.
std::vector<Work> OfObject(const std::string &name, const Bytes &before,
                           const Bytes &after, const Lines &tables)
{
    const auto put = [=]
    {
        Put(Status(kParent, "p", 0));
        Put(after, {kParent});
    };
    const auto old = [=]
    {
        put();
        MakeRow(before);
    };
    return {OfWorker(name + " create", put,
                     List(DATA_EVENT_DATA_OBJ_CREATE, {kOid}), tables),
            OfWorker(name + " refresh", old,
                     List(DATA_EVENT_DATA_OBJ_DIRTY_LIST, {kOid}), tables),
            OfWorker(name + " destroy", old,
                     List(DATA_EVENT_DATA_OBJ_DESTROY, {kOid}), tables)};
}

// A setting with two lists of texts.
Bytes Setting(const std::string &texts)
{
    return MakeObject(0x706, kOid,
                      R"({"possible_value_": [)" + texts +
                          R"(], "display_value_": [)" + texts + "]}");
}

void PutKey(const char *interface, const std::string &value = "a",
            const char *key = kKey)
{
    const JsonPtr values(json_pack("{s:s}", "DisplayName", value.c_str()));
    EXPECT_EQ(standin::PutAttribute(interface, key, values.get(), kOid), "");
}

void ExpectFree(pthread_mutex_t &mutex)
{
    const int taken = pthread_mutex_trylock(&mutex);
    EXPECT_EQ(taken, 0) << "a mutex is held";
    if (taken == 0)
    {
        pthread_mutex_unlock(&mutex);
    }
}

// No lock is held, no statement is under way, no create waits for a delete.
void ExpectIdle()
{
    GiveUpRead();
    for (sqlite3_stmt *statement = sqlite3_next_stmt(QDVdbHandle, nullptr);
         statement != nullptr;
         statement = sqlite3_next_stmt(QDVdbHandle, statement))
    {
        EXPECT_EQ(sqlite3_stmt_busy(statement), 0) << sqlite3_sql(statement);
    }
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        ObjRowState &state = StateOf(row);
        ExpectFree(state.CreateObjMutex);
        ExpectFree(state.RefreshObjMutex);
        ExpectFree(state.DeleteObjMutex);
        ExpectFree(state.SelectObjMutex);
        ExpectFree(state.DeleteWaitMutex);
        EXPECT_EQ(state.DeletingOID, ObjRowState::kNoOid);
    }
    for (pthread_mutex_t *mutex :
         {&gReLoadNCMutex, &gReLoadFRUNCMutex, &gReLoadKeyBasedNCMutex,
          &gObjTypeBasedNCMutex, &SqliteStepMutex})
    {
        ExpectFree(*mutex);
    }
}

// The clock stands still, so that tags don't differ.
class NoMemory : StreamClock, public Handler
{
  protected:
    NoMemory()
    {
        IgnoreSqlite();
    }

    // An empty mirror and Data Manager, and nobody who hears of it.
    void Reset()
    {
        CaptureLog(1);
        standin::Reset();
        while (QdbEventQSize > 0)
        {
            EventNodePtr(QdbdeQueue(gQdbEventQueue)).reset();
        }
        Kept();
        GiveUpRead();
        Rows("DELETE FROM ActiveOIDMapping");
    }

    // By the service's own connection: another one reads the whole schema.
    static Lines Rows(const std::string &sql)
    {
        Lines rows;
        const auto append = [](void *to, int count, char **values, char **)
        {
            std::string row;
            for (int i = 0; i < count; ++i)
            {
                row += values[i] == nullptr ? "NULL" : values[i];
                row += "|";
            }
            static_cast<Lines *>(to)->push_back(row);
            return 0;
        };
        EXPECT_EQ(
            sqlite3_exec(QDVdbHandle, sql.c_str(), append, &rows, nullptr),
            SQLITE_OK);
        return rows;
    }

    // What the work leaves: rows, links, and records.
    static Lines State(const Work &work)
    {
        Lines state;
        for (const std::string &table :
             work.tables + Lines{"ActiveOIDMapping", "ParentChildMapping"})
        {
            for (const std::string &row :
                 Rows("SELECT * FROM " + table + " ORDER BY OID"))
            {
                state.push_back(table + " " + row);
            }
        }
        std::set<std::string> records; // a repeated signal makes a second one
        while (QdbEventQSize > 0)
        {
            const EventNodePtr node(QdbdeQueue(gQdbEventQueue));
            const auto *bytes = reinterpret_cast<const char *>(node->data);
            records.emplace(bytes, node->data->evtSize);
        }
        return state + Lines{records.begin(), records.end()};
    }

    std::multiset<std::string> Signals()
    {
        std::multiset<std::string> signals;
        for (const Change &change : listener_.TakeAll())
        {
            signals.insert(change.member + " " + change.json);
        }
        return signals;
    }

    static int Mapped()
    {
        return static_cast<int>(
            Rows("SELECT OID FROM ActiveOIDMapping").size());
    }

    void Begin(const Work &work)
    {
        DbusEventsEnabled = 0;
        Reset();
        work.begin();
        DbusEventsEnabled = 1;
        work.feed();
    }

    static void Run(const Work &work)
    {
        work.run();
        work.settle();
    }

    // Returns how many allocations the work needs. At first all fail.
    int Sweep(const Work &work, Caller caller = Caller::Service)
    {
        SCOPED_TRACE(work.name);
        Begin(work);
        Run(work);
        const int mapped = Mapped();
        const Lines state = State(work);
        work.feed();
        Run(work);
        const std::multiset<std::string> signals = Signals();
        bool failed = true;
        int n = 0;
        for (; failed && !HasFailure(); ++n)
        {
            SCOPED_TRACE("allocation " + std::to_string(n));
            Begin(work);
            {
                const NoMemoryAt here(n, caller);
                tNoMemory = n == 0;
                work.run();
                tNoMemory = false;
                failed = here.HasFailed();
            }
            work.settle();
            ExpectIdle();
            EXPECT_LE(n == 0 ? 0 : std::abs(Mapped() - mapped), failed ? 1 : 0);
            if (failed && !work.isOnce)
            {
                work.feed();
                Run(work);
                ExpectIdle();
            }
            if (!failed || !work.isOnce)
            {
                EXPECT_EQ(State(work), state);
            }
        }
        // Nothing is announced by halves, or more often than is due.
        const std::multiset<std::string> seen = Signals();
        for (const std::string &signal :
             std::set<std::string>(seen.begin(), seen.end()))
        {
            EXPECT_TRUE(work.leavesOut ||
                        seen.count(signal) <=
                            signals.count(signal) * static_cast<size_t>(n))
                << signal;
        }
        return n - 2;
    }

    // Each kind of work needs some memory, or is not what it is taken for.
    void SweepAll(const std::vector<Work> &works)
    {
        for (const Work &work : works)
        {
            EXPECT_GT(Sweep(work), 0) << work.name;
        }
    }
};

TEST_F(NoMemory, ObjectsAreCreatedRefreshedAndDeleted)
{
    const Lines status = {"TblDMStatus_Child_Obj"};
    const Lines supply = {"TblPowerSupplyObj"};
    SweepAll(
        OfObject("plain", Status(kOid, "a", 1), Status(kOid, "b", 2), status));
    SweepAll(OfObject("escaped", Status(kOid, "\\u0001", 1),
                      Status(kOid, "\\u0002", 1), status));
    SweepAll(OfObject("wide", Supply("a"), Supply("b"), supply));
    SweepAll(
        {OfObject("wide, escaped", Supply(""), Supply("\\\""), supply)[0]});
    SweepAll(OfObject("array", List(kOid, "1, 2, 3"), List(kOid, "1, 7, 3"),
                      kListTables));
    std::vector<Work> joined =
        OfObject("joined", Setting(R"("a", "b")"), Setting(R"("c", "b")"),
                 {"TblHII_Enum_Obj"});
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
         OfObject("array", List(kOid, "1, 2"), List(kOid, "1, 7"), kListTables))
    {
        work.leavesOut = work.isOnce = true;
        EXPECT_GT(Sweep(work, Caller::Sqlite), 0);
    }
}

TEST_F(NoMemory, AttributesComeAndGoByTheBus)
{
    const auto put = []
    {
        PutKey("CfgEnumAttribute", "b");
    };
    const auto old = [=]
    {
        PutKey("CfgEnumAttribute", "a");
        OnLoadConfigObjectsCreation(kEnumInterface, nullptr);
        put();
    };
    put();
    std::vector<Work> works;
    for (const uint16_t kind :
         {DATA_EVENT_DATA_OBJ_CREATE, DATA_EVENT_DATA_OBJ_DIRTY_LIST,
          DATA_EVENT_DATA_OBJ_DESTROY})
    {
        works.push_back(OfWorker(
            "kind " + std::to_string(kind),
            kind == DATA_EVENT_DATA_OBJ_CREATE ? Action(put) : Action(old),
            BusRecord(kind, kOid, standin::AttributePath(kKey), kEnumInterface),
            {"TblEnumAttribute"}));
    }
    SweepAll(works);
}

TEST_F(NoMemory, StatusChangesReload)
{
    const auto makeRow = [](const Bytes &row, const Action &forget = kNothing)
    {
        return [=]
        {
            forget();
            MakeRow(row);
        };
    };
    const auto forgetTypes = []
    {
        standin::SetFault("ZOILListChildOIDByType", 0, 2);
        EXPECT_EQ(ObjTypeBasedNCObjects(), ZO_STATUS_NO_SUCH_OBJECT);
    };
    const auto forgetFru = []
    {
        ClearFRUCacheEntry(kOid);
    };
    const auto system = [](const char *host)
    {
        return MakeObject(kSystem, kOid,
                          std::string(R"({"Key": "91||System.Embedded.1", )") +
                              R"("HostName": ")" + host + R"("})");
    };
    const auto seeSystem = [=]
    {
        Put(system("old"));
        MakeRow(system("old"));
        ReLoadKeyBasedNCObjects();
    };
    const auto seeAttribute = [](const std::string &value)
    {
        PutKey("CfgIntAttribute", value,
               "Tarnu.Embedded.1#SerialCapture.1#SerialDataSize");
    };
    const Bytes fru =
        MakeObject(0x42, kOid, R"({"Key": "Disk.Bay.1", "SerialNumber": "S"})");
    Work attributes = {"keyed attributes",
                       [=]
                       {
                           seeAttribute("old");
                           OnLoadConfigObjectsCreation(kIntInterface, nullptr);
                           ReLoadCfgKeyBasedNCObjects();
                           seeAttribute("new");
                       },
                       []
                       {
                           ReLoadCfgKeyBasedNCObjects();
                       },
                       {"TblIntAttribute"}};
    attributes.isOnce = true;
    SweepAll({
        OfReload("any", makeRow(Status(kOid, "a", 1)), Status(kOid, "b", 1),
                 {"TblDMStatus_Child_Obj"}),
        OfReload("memory", makeRow(MakeObject(0xE1, kOid, R"({"Key": "A1"})")),
                 MakeObject(0xE1, kOid, R"({"Key": "DIMM.A1"})"),
                 {"TblMemoryInfo"}),
        OfReload("fru", makeRow(MakeObject(0x42, kOid), forgetFru), fru,
                 {"TblFRUObj"}),
        OfReload("type", forgetTypes,
                 MakeObject(0xEB, kOid, R"({"productName": "b"})"),
                 {"TblDevBLT"}),
        OfReload("key", seeSystem, system("new"), {"TblSystemInfo"}),
        attributes,
    });
}

TEST_F(NoMemory, WalksGoOnWithTheNextObject)
{
    const auto put = []
    {
        Put(Status(kOid, "a", 1));
        Put(List(kOid + 1, "1, 2"));
        for (const char *interface : {"CfgIntAttribute", "CfgStrAttribute",
                                      "CfgEnumAttribute", "CfgPasswdAttribute"})
        {
            EXPECT_EQ(standin::PutAttribute(interface,
                                            std::string("A.1#B.1#") + interface,
                                            nullptr),
                      "");
        }
    };
    const Lines attributes = {"TblIntAttribute", "TblStrAttribute",
                              "TblEnumAttribute", "TblPasswdAttribute"};
    const auto reload = []
    {
        EnterGateForOther();
        ReloadConfigObjectsThread(nullptr);
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
    SweepAll({
        {"population", put, OnLoadObjectsCreation,
         attributes + Lines{"TblDMStatus_Child_Obj"}},
        {"configuration", put, reload, attributes},
        {"drain", putJob, check, {"TblJobControlInfoObj"}, fail},
        {"count check", put, check, {"TblDMStatus_Child_Obj"}},
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
        MakeRow(MakeObject(TYPE_CFGSTR, kOid,
                           std::string(R"({"Key": ")") + kKey + R"("})"));
    };
    const auto keyEnd = static_cast<uint32_t>(24 + sizeof(kKey));
    std::vector<Work> works = {
        OfWorker("event", old,
                 Record(ZO_EVENT_RAW_DATA_UPDATE, {24, keyEnd},
                        std::string(kKey) + '\0' + directory + kKey + '\0'),
                 {"TblStrAttribute"}),
        {"directory", old, OnLoadRawObjectsUpdate, {"TblStrAttribute"}},
    };
    for (Work &work : works)
    {
        work.leavesOut = true;
    }
    SweepAll(works);
}

TEST_F(NoMemory, TheListenerKeepsToTheDataManagersThread)
{
    const auto listen = [](const Bytes &record)
    {
        return [record = Bytes(record)]() mutable
        {
            QDVEventListener(
                reinterpret_cast<DataEventHeader *>(record.data()));
        };
    };
    const auto rows = []
    {
        MakeRow(Status(kOid, "a", 1));
        MakeRow(Status(kOid + 1, "b", 1));
        Put(MakeObject(0x900, kOid + 2));
        PutKey("CfgIntAttribute");
    };
    Work detach = {"detach",
                   rows,
                   listen(Record(DATA_EVENT_DM_DETACHED, {})),
                   {"TblIntAttribute", "TbllmRootDataObj"},
                   []
                   {
                       CaptureLog(6);
                   }};
    // The configuration comes back on a thread of its own.
    detach.settle = []
    {
        WaitForLog("Reload Config Objects - Completed!\n");
    };
    SweepAll({
        {"queues", kNothing, listen(List(DATA_EVENT_DATA_OBJ_CREATE, {kOid}))},
        {"bunch",
         rows,
         listen(List(DATA_EVENT_DATA_OBJ_DESTROY, {kOid, kOid + 1})),
         {"TblDMStatus_Child_Obj"}},
        detach,
    });
}

// What runs inside of SQLite's step, or under the bus mutex, needs no memory.
TEST_F(NoMemory, HookAndSendersNeedNone)
{
    const auto hook = []
    {
        CloseTelemetryPipe();
        TelemetryUpdateHook(nullptr, SQLITE_INSERT, "main", "TblFanExtObj", 1);
    };
    EXPECT_EQ(Sweep({"no pipe", kNothing, hook}), 0);
    mirror_.Root().MakePipe();
    const PipeReader reader(mirror_.Root().Pipe());
    EXPECT_EQ(Sweep({"pipe", kNothing, hook}), 0);
    EXPECT_EQ(Sweep({"signal", kNothing,
                     []
                     {
                         ChangeJsonChanged("{}");
                     }}),
              0);
}

// A signal for each of the rules, in their order.
TEST_F(NoMemory, SignalsOfEachRuleAreHeard)
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
        while (!heard)
        {
            bus.process_discard();
            bus.wait(1000);
        }
        heard = false;
    };
    const auto changed = [&](const char *interface)
    {
        return [&sender, interface]
        {
            sender.Emit("/x", "org.freedesktop.DBus.Properties",
                        "PropertiesChanged", "sa{sv}as", interface, 0, 0);
        };
    };
    const Action kSenders[] = {
        [&]
        {
            sender.Own(kConfigService);
            sender.Disown(kConfigService);
        },
        [&]
        {
            sender.Emit("/x", "a.b", "InterfacesAdded", "oa{sa{sv}}", "/x", 1,
                        kIntInterface, 1, "oid", "u", 9);
        },
        [&]
        {
            sender.Emit("/x", kIntInterface, "qdb_object_removed", "us", 9,
                        "x");
        },
        changed(kIntInterface),
        changed(kStrInterface),
        changed(kEnumInterface),
        changed(kPasswdInterface),
        changed("com.vexo.tarnu.Sensor.ProbeObj"),
        changed("com.vexo.tarnu.Sensor.FanExtObj"),
        changed("com.vexo.tarnu.Sensor.HvxStatusObj"),
        changed("com.vexo.tarnu.Sensor.IntrusionObj"),
        [&]
        {
            sender.Emit("/x", kEnumInterface, "qdb_bulk_commit", "");
        },
        [&]
        {
            sender.Emit("/x", "a.b", "RawDataUpdated", "ss", "Key", "/file");
        },
    };
    std::vector<Work> works;
    for (const Action &send : kSenders)
    {
        works.push_back({"rule " + std::to_string(works.size()),
                         []
                         {
                             PutKey("CfgEnumAttribute");
                         },
                         hear,
                         {"TblEnumAttribute"},
                         send});
    }
    SweepAll(works);
    // The thread itself ends when it can't begin.
    CaptureLog(2);
    tNoMemory = true;
    handle_sdbus_signal_Request_thread(nullptr);
    tNoMemory = false;
    EXPECT_EQ(LogLines(), Lines{"EX: std::bad_alloc\n"});
}

} // namespace
} // namespace qdb::test
