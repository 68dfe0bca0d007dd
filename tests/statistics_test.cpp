// Every figure is moved by its real cause, and what the file says is what
// counts. The rest is the reader's: damaged files.

#include "busintake/translation.h"
#include "core/fate.h"
#include "core/ready.h"
#include "core/statistics.h"
#include "publish/bus_connection.h"
#include "publish/telemetry.h"
#include "reconcile/count_check.h"
#include "reconcile/population.h"
#include "tests/support/memory_sweep.h"
#include "tests/support/text.h"
#include "tools/qdb/statistics.h"
#include "tools/qdb/status_text.h"

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

namespace qdb::test
{
namespace
{

constexpr uint32_t kOid = 0x51;

// The file that all tests of the executable count in.
std::string File()
{
    static const TempRoot root;
    static const std::string path = root.Path() + "/statistics";
    static const int error = OpenStatistics(path.c_str());
    EXPECT_EQ(error, 0);
    return path;
}

tool::Statistics Look()
{
    return tool::ReadStatistics(File()).value();
}

class StatisticsTest : public NcReload
{
  protected:
    StatisticsTest()
    {
        File();
        tEventCame = 0;
    }

    // A record on the queue, and a worker's life with it.
    static void Work(const Bytes &record)
    {
        const test::Work work = OfWorker("", kNothing, record, {});
        work.feed();
        work.run();
    }

    static void Notify(uint16_t type, const Words &oids)
    {
        Work(List(type, oids));
    }

    static std::string Fate(const char *fate, const char *road = "data_manager")
    {
        return std::string("road=\"") + road + "\",fate=\"" + fate + "\"";
    }
};

struct Case
{
    std::string figure;
    std::string label;
    Action cause;
};

// What only a whole service moves: its start, its threads and its detach
// (status_test.cpp).
const std::set<std::string> kOfALife = {
    "bus_connected",   "detached",        "events_received type=\"detach\"",
    "objects stopped", "passes",          "types",
    "pass_began",      "pass_length",     "phase_since",
    "started",         "workers_admitted"};

// The series that no case is about. One worker and one table are as good as the
// next; of fates EachRoadTellsTheFate has the roads.
std::set<std::string> NotMoved(const std::set<std::string> &moved)
{
    std::set<std::string> rest;
    const auto check = [&](const std::string &family, const std::string &label)
    {
        const bool isMoved = std::ranges::any_of(
            moved,
            [&](const std::string &one)
            {
                const size_t space = one.find(' ');
                return family == one.substr(0, space) &&
                       (one.find(label, space) != std::string::npos ||
                        label.find(one.substr(space + 1)) != std::string::npos);
            });
        if (!isMoved)
        {
            rest.insert(family + (label.empty() ? "" : " ") + label);
        }
    };
    for (const tool::Family &family : Look().families)
    {
        for (const tool::Series &series : family.series)
        {
            const bool isFate = family.name == "objects";
            if (!series.labels.starts_with("worker=") &&
                !series.labels.starts_with("table="))
            {
                check(family.name, isFate ? std::string(series.Label("fate"))
                                          : series.labels);
            }
        }
    }
    return rest;
}

// A pipe without room, or without a way to write.
void WritePipe(const TempRoot &root, int flags, bool isFull)
{
    const int fd = open(root.Pipe().c_str(), O_RDWR | O_NONBLOCK);
    const std::string block(4096, 'x');
    while (isFull && write(fd, block.data(), block.size()) > 0)
    {
    }
    gTelemetryPipeFd = open(root.Pipe().c_str(), flags | O_NONBLOCK);
    PublishTelemetryLine("x");
    CloseTelemetryPipe();
    close(fd);
}

TEST_F(StatisticsTest, EachFigureHasItsCause)
{
    mirror_.Root().MakePipe();
    const Bytes object = Status(kOid, "a", 1);
    const auto put = [&]
    {
        Clear();
        Put(object);
    };
    const auto putWithRow = [&]
    {
        Clear();
        PutWithRow(object);
    };
    const auto busy = [&](int status, uint16_t type)
    {
        Clear();
        Put(MakeObject(type, kOid));
        FailSteps(kMapping, status, kForever);
        Notify(DATA_EVENT_DATA_OBJ_CREATE, {kOid});
        ClearSqliteFaults();
    };
    constexpr uint16_t kKept = 0x15;
    // clang-format off
    const std::vector<Case> cases = {
        {"types_filled", "", [] { OnLoadObjectsCreation(); }},
        {"events_received", "\"create\"", [&] { GiveToListener(List(7, Words{})); }},
        {"events_received", "\"refresh\"", [&] { GiveToListener(List(3, Words{})); }},
        {"events_received", "\"destroy\"", [&] { GiveToListener(List(8, Words{})); }},
        {"events_received", "\"status_change\"", [&] { GiveToListener(Record(4, {0}, {object.begin(), object.end()})); }},
        {"events_received", "\"raw_data\"", [] { HandleSignalRawDataUpdated("A", "/b"); }},
        {"events_received", "\"bus\"", [] { qdb_signal_notification_callback("i", "InterfacesAdded", "/p", 1); }},
        {"events_received", "\"other\"", [] { GiveToListener(Record(3400, {})); }},
        {"events_dropped", "\"malformed\"", [] { GiveToListener(Record(3, {})); }},
        {"events_dropped", "\"unknown_type\"", [] { GiveToListener(Record(5, {})); }},
        {"events_dropped", "\"no_memory\"", [] { standin::SetFault("ZOAllocMem", 0, 1); GiveToListener(List(7, Words{})); }},
        {"events_dropped", "\"no_memory\"", [] { Bytes record = List(7, Words{1}); const NoMemoryAt fault(1); QDVEventListener(reinterpret_cast<DataEventHeader *>(record.data())); }},
        {"events_dropped", "\"over_bound\"", [] { HandleSignalRawDataUpdated(std::string(kMaxBusBytes, 'k').c_str(), "/b"); }},
        {"last_event", "", [] { GiveToListener(List(7, Words{})); }},
        {"queue_length", "", [] { Enqueue(List(7, Words{})); }},
        {"queue_oldest", "", [] { TakeQueued(); Enqueue(List(7, Words{})); }},
        {"queue_most", "", [] { for (int i = 0; i < 64; ++i) { Enqueue(List(7, Words{})); } TakeQueued(); }},
        {"objects_arrived", "data_manager", [] { GiveToListener(List(7, Words{kOid})); TakeQueued(); }},
        {"objects_arrived", "bus", [] { qdb_signal_notification_callback("i", "InterfacesAdded", "/p", 1); TakeQueued(); }},
        {"objects_arrived", "population", [&] { put(); OnLoadObjectsCreation(); }},
        {"objects_arrived", "reload", [&] { Clear(); PutObject(0xEB, kOid); ObjTypeBasedNCObjects(); }},
        {"objects_arrived", "drain", [] { QdbFailenQueue(gFailQueue, kOid, FailedOperation::Create, -1); Kept(); }},
        {"objects", Fate("ignored"), [&] { Clear(); Bytes strange = object; reinterpret_cast<DataObjHeader *>(strange.data())->objType = 0x7FFE; Put(strange); Notify(7, {kOid}); }},
        {"objects", Fate("vanished"), [&] { Clear(); Work(Record(4, {0}, {object.begin(), object.end()})); }},
        {"objects", Fate("legacy"), [&] { Clear(); Put(MakeObject(TYPE_CFGSTR, kOid)); Notify(7, {kOid}); }},
        {"objects", Fate("no_row"), [&] { put(); Notify(3, {kOid}); }},
        {"objects", Fate("no_row"), [&] { Clear(); Notify(8, {kOid}); }},
        {"objects", Fate("passed_on"), [&] { Clear(); const Bytes memory = MakeObject(0xE1, kOid); Work(Record(4, {0}, {memory.begin(), memory.end()})); }},
        {"objects", Fate("unchanged"), [&] { putWithRow(); Notify(3, {kOid}); }},
        {"objects", Fate("changed"), [&] { putWithRow(); Put(Status(kOid, "b", 1)); Notify(3, {kOid}); }},
        {"objects", Fate("created"), [&] { put(); Notify(7, {kOid}); }},
        {"objects", Fate("removed"), [&] { putWithRow(); Notify(8, {kOid}); }},
        {"objects", Fate("incomplete"), [&] { Clear(); Put(object, {0x77}); Notify(7, {kOid}); }},
        {"objects", Fate("vanished"), [&] { Clear(); Notify(7, {kOid}); }},
        {"objects", Fate("constraint"), [&] { putWithRow(); Notify(7, {kOid}); }},
        {"objects", Fate("invalid"), [&] { Clear(); Put(Broken(MakeObject(0xE1, kOid, R"({"Key": "A1"})"))); Notify(7, {kOid}); }},
        {"objects", Fate("busy"), [&] { busy(SQLITE_BUSY, kStatus); }},
        {"objects", Fate("failed"), [&] { busy(SQLITE_IOERR, kStatus); }},
        {"objects", Fate("no_memory"), [&] { busy(SQLITE_NOMEM, kStatus); }},
        {"objects", Fate("kept"), [&] { busy(SQLITE_BUSY, kKept); }},
        {"failed_kept", "", [&] { busy(SQLITE_BUSY, kKept); }},
        {"failed_waiting", "", [&] { busy(SQLITE_BUSY, kKept); }},
        {"failed_taken", "", [] { Kept(); }},
        {"objects", Fate("created", "drain"), [&] { Kept(); busy(SQLITE_BUSY, kKept); QdbFailenQueue(gFailQueue, kOid, FailedOperation::Create, -1); CheckDMObjCountandReCreateEntries(); Kept(); }},
        {"objects", Fate("created", "population"), [&] { put(); OnLoadObjectsCreation(); }},
        {"objects", Fate("created", "reload"), [&] { Clear(); PutObject(0xEB, kOid); ObjTypeBasedNCObjects(); }},
        {"objects", Fate("invalid", "bus"), [] { Work(Record(65533, {7, 1, 0, 0})); }},
        {"signals", "\"sent\"", [&] { put(); Notify(7, {kOid}); }},
        {"signals", "\"failed\"", [] { const BusLock lock; send_dbus_signal("\xff", 1); }},
        {"signals", "\"too_long\"", [] { const BusLock lock; send_dbus_signal(std::string(kMaxSignalText + 1, 'x').c_str(), 1); }},
        {"signals", "\"not_ready\"", [] { DbusEventsEnabled = 0; ChangeJsonAdded("{}"); DbusEventsEnabled = 1; }},
        {"signals", "\"no_bus\"", [] { const BusLock lock; sd_bus *bus = gBusConnection.exchange(nullptr); send_dbus_signal("{}", 1); gBusConnection = bus; }},
        {"telemetry_records", "\"no_reader\"", [] { CloseTelemetryPipe(); PublishTelemetryLine("x"); }},
        {"telemetry_records", "\"written\"", [&] { WritePipe(mirror_.Root(), O_WRONLY, false); }},
        {"telemetry_records", "\"full\"", [&] { WritePipe(mirror_.Root(), O_WRONLY, true); }},
        {"telemetry_records", "\"failed\"", [&] { WritePipe(mirror_.Root(), O_RDONLY, false); }},
        {"database_refusals", "\"busy\"", [&] { busy(SQLITE_BUSY, kStatus); }},
        {"database_refusals", "\"locked\"", [&] { busy(SQLITE_LOCKED, kStatus); }},
        {"database_busy", "", [&] { putWithRow(); FailSteps("UPDATE TblDMStatus", SQLITE_BUSY, 1); Put(Status(kOid, "b", 1)); Notify(3, Words{kOid}); }},
        {"event_to_commit", "", [&] { put(); Notify(7, {kOid}); }},
        {"event_to_signal", "", [&] { put(); Notify(7, {kOid}); }},
        {"table_rows", "TblDMStatus_Child_Obj", putWithRow},
        {"table_changes", "TblDMStatus_Child_Obj", putWithRow},
        {"table_changed", "TblDMStatus_Child_Obj", putWithRow},
        {"ready_refused", "", [] { standin::SetFault("CfgSetAttributeInt", 5, 1); PublishReadiness(); }},
        {"signals_enabled", "", [] { PublishReadiness(); }},
        {"phase", "", [] { EnterPhase(Phase::Starting); EnterPhase(Phase::Running); }},
    };
    // clang-format on
    // Other tests may have had as much.
    Figures().typesFilled = 0;
    Figures().queueMost = 0;
    std::set<std::string> moved;
    for (const Case &c : cases)
    {
        SCOPED_TRACE(c.figure + " " + c.label);
        // What a case begins with must not be what it is about.
        const tool::Statistics before = Look();
        c.cause();
        EXPECT_NE(Look().Sum(c.figure, c.label), before.Sum(c.figure, c.label));
        moved.insert(c.figure + " " + c.label);
    }
    TakeQueued();
    Kept();
    Clear();
    EXPECT_EQ(NotMoved(moved), kOfALife);
}

// What may become of an object on its way to a row, on each road.
TEST_F(StatisticsTest, EachRoadTellsTheFate)
{
    constexpr uint16_t kKept = 0x15;
    const std::string kInterface = "CfgIntAttribute";
    const std::string kKey = "A.1#B.1#C";
    const Bytes added = BusRecord(DATA_EVENT_DATA_OBJ_CREATE, kOid,
                                  standin::AttributePath(kKey),
                                  "com.vexo.tarnu.Config." + kInterface);
    const auto put = []
    {
        Put(Status(kOid, "a", 1));
    };
    const auto drain = []
    {
        const int index = QdbFailObjTypeIndex(kKept);
        QdbFailenQueue(gFailQueue, kOid, FailedOperation::Create, index);
        // The last one waits for another.
        QdbFailenQueue(gFailQueue, 1, FailedOperation::Create, index);
        CheckDMObjCountandReCreateEntries();
    };
    // clang-format off
    const struct
    {
        const char *road;
        Action put;
        Action look;
        std::string fetch = "ZOILGetObjByOID";
        std::string ifBusy = "busy";
    } kRoads[] = {
        {"data_manager", put, [] { Notify(DATA_EVENT_DATA_OBJ_CREATE, {kOid}); }},
        {"bus", [&] { PutAttribute(kInterface.c_str(), kKey, kOid); }, [&] { Work(added); }, kInterface + "_get_object"},
        {"population", put, [] { OnLoadObjectsCreation(); }},
        {"reload", [] { PutObject(0xEB, kOid); }, [] { ObjTypeBasedNCObjects(); }},
        {"drain", [] { Put(MakeObject(kKept, kOid)); }, drain, "ZOILGetObjByOID", "kept"},
    };
    // clang-format on
    for (const auto &road : kRoads)
    {
        const auto mapping = [](int status)
        {
            return [status]
            {
                FailSteps(kMapping, status, kForever);
            };
        };
        const std::pair<std::string, Action> kFaults[] = {
            {"created", kNothing},
            {road.ifBusy, mapping(SQLITE_BUSY)},
            {"no_memory", mapping(SQLITE_NOMEM)},
            {"failed", mapping(SQLITE_IOERR)},
            {"constraint", mapping(SQLITE_CONSTRAINT)},
            {"vanished",
             [&]
             {
                 standin::SetFault(road.fetch, 5, 1000);
             }},
        };
        for (const auto &[fate, fault] : kFaults)
        {
            SCOPED_TRACE(road.road + (" " + fate));
            Clear();
            road.put();
            fault();
            const std::string label = Fate(fate.c_str(), road.road);
            const uint64_t before = Look().Sum("objects", label);
            road.look();
            EXPECT_EQ(Look().Sum("objects", label), before + 1);
            Kept();
        }
    }
    Clear();
}

// Whatever happens in the meantime: at rest, what arrived has been accounted
// for.
TEST_F(StatisticsTest, TheBooksBalance)
{
    const auto open = []
    {
        const tool::Statistics look = Look();
        std::map<std::string, uint64_t> roads;
        for (const tool::Series &road : look.Find("objects_arrived")->series)
        {
            roads[road.labels] =
                road.cells[0] - look.Sum("objects", road.labels);
        }
        return roads;
    };
    const auto before = open(); // what other tests took off the queue
    for (const test::Work &work : WorksOfWorkers())
    {
        SCOPED_TRACE(work.name);
        for (int n = 0; n < 40; n += 13)
        {
            Clear();
            work.begin();
            work.feed();
            {
                const NoMemoryAt fault(n);
                work.run();
            }
            TakeQueued();
        }
        EXPECT_EQ(open(), before);
    }
}

// A file is read as far as its header says, and no further.
TEST_F(StatisticsTest, ADamagedFileIsRefused)
{
    const std::string bytes = FileText(File());
    const std::string path = mirror_.Root().Path() + "/damaged";
    const auto refused = [&](const std::string &damaged)
    {
        std::ofstream(path, std::ios::binary) << damaged;
        try
        {
            tool::ReadStatistics(path);
            return false;
        }
        catch (const std::runtime_error &)
        {
            return true;
        }
    };
    EXPECT_FALSE(refused(bytes));
    EXPECT_FALSE(tool::ReadStatistics(path + "!").has_value());
    for (const size_t size : {size_t{0}, size_t{7}, sizeof(StatisticsHeader),
                              bytes.size() / 2, bytes.size() - 1})
    {
        EXPECT_TRUE(refused(bytes.substr(0, size))) << size;
    }
    // A series without cells, and one with more than there are.
    for (const char size : {'\0', '\x7f'})
    {
        std::string damaged = bytes;
        StatisticsHeader header = {};
        std::memcpy(&header, bytes.data(), sizeof(header));
        std::memset(damaged.data() + header.series.at +
                        offsetof(StatisticsSeries, cellCount),
                    size, sizeof(uint32_t));
        EXPECT_TRUE(refused(damaged)) << int{size};
    }
    // Each word of the header, wherever it points to then.
    for (size_t at = 0; at < offsetof(StatisticsHeader, unused); at += 4)
    {
        std::string damaged = bytes;
        std::fill_n(damaged.begin() + static_cast<std::ptrdiff_t>(at), 4,
                    '\xff');
        // More entries than anything refers to are no harm.
        const bool isHarmless =
            at == offsetof(StatisticsHeader, version) ||
            at == offsetof(StatisticsHeader, pid) ||
            at == offsetof(StatisticsHeader, series.count) ||
            at == offsetof(StatisticsHeader, cells.count);
        EXPECT_EQ(refused(damaged), !isHarmless) << at;
    }
}

// The text format: a HELP and a TYPE before the samples of each name, no name
// twice, and values that are numbers.
TEST_F(StatisticsTest, PrometheusCanReadIt)
{
    static const std::regex kSample(
        R"(([a-z_]+)(\{([a-z]+="[^"\n]*",?)+\})? (-?[0-9.e+-]+))");
    static const std::regex kMeta(R"(# (HELP|TYPE) ([a-z_]+) (.+))");
    std::istringstream text(tool::StatusForPrometheus(Look()));
    std::set<std::string> named;
    std::string current;
    int samples = 0;
    for (std::string line; std::getline(text, line);)
    {
        std::smatch match;
        if (std::regex_match(line, match, kMeta))
        {
            current = match[2];
            EXPECT_TRUE(named.insert(match[1].str() + current).second) << line;
            continue;
        }
        ASSERT_TRUE(std::regex_match(line, match, kSample)) << line;
        EXPECT_TRUE(match[1].str().starts_with(current)) << line;
        ++samples;
    }
    EXPECT_EQ(named.size() % 2, 0U);
    EXPECT_GT(samples, 400);
}

} // namespace
} // namespace qdb::test
