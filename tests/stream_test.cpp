// One fixed workload over the whole catalogue, and all that the service makes
// visible in its course: results, signals, telemetry records, sleeps, kept
// failures, rows, log lines.
//
// The stream is compared with the one in tests/data/stream.txt, so that work
// on the inside, above all for speed, shows every change of what comes out.
// QDB_TEST_RECORD=1 writes that file anew, and its differences are then to be
// read line by line. QDB_TEST_STREAM=FILE writes the stream with nothing cut,
// to compare two builds where the recording has only a hash.
//
// All is done from this thread, and SQLite's clock is the test's own, so that
// the stream is one sequence, the same in every run.

#include "events/bus_dispatch.h"
#include "events/dispatch.h"
#include "events/listener.h"
#include "reconcile/population.h"
#include "tests/stream_steps.h"
#include "tests/support/config_bytes.h"
#include "tests/support/handler_fixture.h"
#include "tests/support/row_values.h"
#include "tests/support/stream_clock.h"
#include "tests/support/stream_driver.h"
#include "tests/support/text.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>

namespace qdb::test
{
namespace
{

constexpr char kComment[] =
    "# What the service makes visible in the course of the workload in\n"
    "# tests/stream_test.cpp. Written by QDB_TEST_RECORD=1.\n"
    "#\n"
    "# == an operation, then what came of it: its result, signals, telemetry\n"
    "# records, and the tables afterwards. \"log\" names the log lines, each\n"
    "# with its level; they stand behind the first operation that had them.\n"
    "# What is cut off tells its length and its hash.\n";

// Seconds. What changes at kThen has the tag of its create.
constexpr int64_t kThen = 1111111111;
constexpr int64_t kNow = 2222222222;
constexpr int64_t kLater = 3333333333;

// What is done to an object behind its values, by name.
const std::map<std::string, void (*)(Bytes &)> kPatches = {
    // clang-format off
    {"as it is", [](Bytes &) {}},
    // Question marks as bytes that no UTF-8 has.
    {"garble", [](Bytes &object) { std::ranges::replace(object, '?', 0xFF); }},
    // The offset of the text at 0x18 points outside.
    {"break", [](Bytes &object) { object.at(0x19) = 0x20; }},
    // The dependency list's offset has bits that the service takes away.
    {"displace", [](Bytes &object) { object.at(0x4D) |= 0x10; }},
    // The slot is of the other kind.
    {"fill", [](Bytes &object) { object.at(0x1C) = 7; }},
    // clang-format on
};

constexpr char kForget[] = "DELETE FROM ActiveOIDMapping;"
                           "UPDATE TblEtag SET MultiRecordEtag = NULL";

// What SQLite makes of it where the recording was written.
constexpr char kDigits[] = "SELECT quote(CAST(9007199254740991 AS REAL))";
constexpr char kDigitsOfTheRecording[] = "9.00719925474099099987e+15";

class StreamTest : public ::testing::Test
{
  protected:
    StreamTest() : mirror_({.pipe = true}), recorder_(mirror_.Root())
    {
        Restart(0);
        DbusEventsEnabled = 1;
        PutParents();
    }
    ~StreamTest() override
    {
        ClearSqliteFaults();
        RestoreSleeps();
    }

    void Event(const std::string &name, const Subject &subject, uint16_t kind)
    {
        recorder_.Record(name, subject,
                         [&]
                         {
                             return Notify(subject, kind);
                         });
    }

    // What the next object must not find.
    void CleanUp(const Subject &subject)
    {
        Remove(subject);
        mirror_.Rows(kForget);
    }

    void Sweep(const ObjTypeRow &row, uint32_t oid)
    {
        static const std::set<std::string> kWhole = {
            "1001", "4051", "45_EmptySlotObj", "706", "801"};
        recorder_.KeepWhole(kWhole.contains(row.suffix));
        const Subject subject = {&row, oid};
        clock_.Set(kThen);
        Put(subject, ValuesFor(row, ValueSet::First).get());
        Event("create", subject, kCreate);
        Put(subject, ValuesFor(row, ValueSet::Second).get());
        Event("change", subject, kDirty);
        clock_.Set(kNow);
        Event("refresh", subject, kDirty);
        if (!IsConfigType(row.objType))
        {
            recorder_.Record("status change", subject,
                             [&]
                             {
                                 return NotifyStatus(subject);
                             });
        }
        clock_.Set(kLater);
        Put(subject, ValuesFor(row, ValueSet::First).get());
        Event("change back", subject, kDirty);
        Event("create again", subject, kCreate);
        Event("destroy", subject, kDestroy);
        Event("refresh without a row", subject, kDirty);
        CleanUp(subject);
    }

    // Another process's work on the tables, and the statements that fail, if
    // the step has any.
    void Arm(json_t *step)
    {
        static const std::set<std::string> kKeys = {
            "step",  "sql",    "fail",  "unprepared", "skip",
            "event", "values", "patch", "parents",    "first",
            "act",   "lost",   "afresh"};
        const char *key = nullptr;
        json_t *value = nullptr;
        json_object_foreach(step, key, value)
        {
            EXPECT_TRUE(kKeys.contains(key)) << key;
        }
        if (const char *sql = json_string_value(json_object_get(step, "sql")))
        {
            mirror_.Rows(sql);
        }
        const Faults faults = FaultsOf(step);
        if (!faults.prepares.empty())
        {
            ForgetStatements();
        }
        faults.Arm();
    }

    // What happens to one object: its values, if it gets new ones, its bytes
    // behind them, its parents then, and the event.
    void Take(json_t *step, const Subject &subject)
    {
        const Words parents = ParentsOf(json_object_get(step, "parents"));
        if (json_t *values = json_object_get(step, "values"))
        {
            Put(subject, values, parents);
        }
        if (const char *patch =
                json_string_value(json_object_get(step, "patch")))
        {
            Bytes object = standin::ObjectBytes(subject.oid);
            kPatches.at(patch)(object);
            EXPECT_EQ(standin::PutRawObject(object, parents), "");
        }
        Arm(step);
        Event(json_string_value(json_object_get(step, "step")), subject,
              KindOf(json_object_get(step, "event")));
        ClearSqliteFaults();
    }

    void Tell(const json_t *story, uint32_t oid)
    {
        const std::string suffix =
            json_string_value(json_object_get(story, "row"));
        const Subject subject = {
            std::ranges::find(ObjectTypeTable, suffix, &ObjTypeRow::suffix),
            oid};
        FinalizeHandlerStatements();
        FinalizeMappingStatements();
        recorder_.KeepWhole(true);
        clock_.Set(kThen);
        for (json_t *step : Elements(json_object_get(story, "steps")))
        {
            Take(step, subject);
            clock_.Set(kNow);
        }
        CleanUp(subject);
    }

    // Records that are odd, or are about more than one object.
    void TellRecords()
    {
        PutObject(kStatus, 0x11, R"({"popName": "first"})");
        PutObject(kStatus, 0x13, R"({"popName": "last"})");
        const Words oids = {0x11, 0x12, 0x13};
        PutAttribute("CfgEnumAttribute", kAttributeKey, 0x14);
        const std::string path = standin::AttributePath(kAttributeKey);
        const std::string enums = "com.vexo.tarnu.Config.CfgEnumAttribute";
        const struct
        {
            const char *name;
            Bytes record;
        } kRecords[] = {
            {"create of three", List(kCreate, oids)},
            {"refresh of three", List(kDirty, oids)},
            {"destroy of three", List(kDestroy, oids)},
            {"too many", List(kDirty, Words(4001))},
            {"count beyond the record", Record(kDirty, {2, 0x11})},
            {"attribute", BusRecord(kCreate, 0x14, path, enums)},
            {"unknown interface", BusRecord(kDirty, 0x14, path, enums + "s")},
            {"unknown kind", BusRecord(4, 0x14, path, enums)},
            {"no attribute", BusRecord(kDirty, 0x14, path + "x", enums)},
            {"attribute of another interface",
             BusRecord(kDirty, 0x14, path, kIntInterface)},
            {"no path", Record(65533, {kDirty, 0x14, 0, 0})},
            {"configuration manager restarted", Record(65533, {23, 0, 0, 0})},
        };
        for (const auto &[name, record] : kRecords)
        {
            recorder_.RecordAll(
                name,
                [event = EventOf(record)]
                {
                    return event->evtType == 65533
                               ? ObjectNotificationDbus(event, event->evtType)
                               : ObjectNotification(event, event->evtType);
                });
        }
        EXPECT_EQ(standin::DeleteObjects(Words{0x11, 0x13}, false), "");
    }

    // Everything from the start, then gone again.
    void TellPopulationAndDetach()
    {
        PutObject(0x900, 0x21);
        PutObject(0x801, 0x22, R"({"ObjTypeList": [1, 2]})");
        PutObject(0x31B, 0x23, R"({"protocol": 64})");
        PutObject(0x31B, 0x24, R"({"protocol": 32})");
        PutObject(0x45, 0x25, R"({"slotType": 7})");
        PutAttribute("CfgPasswdAttribute", "Test.1#Group.1#Other", 0x26);
        const Words parents = {0x5FF, kParentOid};
        EXPECT_EQ(standin::PutRawObject(MakeObject(kStatus, 0x27), parents),
                  "");
        DbusEventsEnabled = 0;
        recorder_.RecordAll("population", OnLoadObjectsCreation);
        DbusEventsEnabled = 1;
        recorder_.RecordAll(
            "detach",
            []
            {
                Bytes record = Record(12, {});
                const int result = QDVEventListener(
                    reinterpret_cast<DataEventHeader *>(record.data()));
                EXPECT_TRUE(WaitUntil(
                    []
                    {
                        return CountLog("Reload Config Objects - Completed!") >
                               0;
                    }));
                return result;
            });
    }

    // What concerns several objects or tables: what there is, then what is
    // made of it, of which the recording has the tables of these types.
    void TakeWide(const json_t *file, json_t *step)
    {
        static const std::set<uint32_t> kTypes = {
            0xE1, 0x36,   0x42, 0x91,  0x4051, 0x4052, 0xEB,
            0xEC, 0x1001, 0x1B, 0x220, 0x40,   0xA03,  0x31B};
        if (json_is_true(json_object_get(step, "afresh")))
        {
            standin::Reset();
            PutObject(0x1100, kParentOid);
            PutObject(0x1100, kOtherParentOid);
            mirror_.Rows(kForget);
        }
        DbusEventsEnabled = 0;
        for (const json_t *line : Elements(json_object_get(step, "first")))
        {
            RunLine(file, line);
        }
        DbusEventsEnabled = 1;
        // A call that gives nothing, once, after so many.
        if (const json_t *lost = json_object_get(step, "lost"))
        {
            standin::SetFault(
                json_string_value(json_array_get(lost, 0)), 5, 1,
                static_cast<int>(NumberOf(json_array_get(lost, 1))));
        }
        recorder_.Forget();
        Arm(step);
        recorder_.RecordAll(
            std::string("step: ") +
                json_string_value(json_object_get(step, "step")),
            [&]
            {
                return RunLine(file, json_object_get(step, "act"));
            },
            kTypes);
        ClearSqliteFaults();
    }

    // Writes the recording, or tells how it differs.
    void Compare()
    {
        const std::string path = std::string(std::getenv("QDB_TEST_SOURCE")) +
                                 "/tests/data/stream.txt";
        const Stream &stream = recorder_.Recorded();
        if (const char *full = std::getenv("QDB_TEST_STREAM"))
        {
            std::ofstream(full) << RenderStream(stream, kComment, true);
        }
        if (std::getenv("QDB_TEST_RECORD") != nullptr)
        {
            std::ofstream out(path, std::ios::trunc);
            out << RenderStream(stream, kComment);
            ASSERT_TRUE(out.flush()) << "can't write " << path;
            return;
        }
        std::string recorded = FileText(path);
        std::string now = RenderStream(stream, kComment);
        if (QueryValue(mirror_.Root().Database(), kDigits) !=
            kDigitsOfTheRecording)
        {
            recorded = RowsWithFifteenDigits(recorded);
            now = RowsWithFifteenDigits(now);
        }
        const std::string files[] = {mirror_.Root().Path() + "/recorded",
                                     mirror_.Root().Path() + "/now"};
        std::ofstream(files[0]) << recorded;
        std::ofstream(files[1]) << now;
        EXPECT_TRUE(recorded == now) << OutputOf(
            "diff -U1 -F '^== ' " + files[0] + " " + files[1] + " | head -200");
    }

    StreamClock clock_;
    Mirror mirror_;
    StreamRecorder recorder_;
};

TEST_F(StreamTest, IsTheRecordedOne)
{
    uint32_t index = 0;
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        // OIDs on both sides of the sign.
        Sweep(row, (index % 2 == 0 ? 0x5A000000u : 0xA5000000u) + index);
        ++index;
    }
    const JsonPtr stories = LoadSteps("stories.json");
    for (const json_t *story : Elements(stories.get()))
    {
        Tell(story, 0xCA000000u + index++);
    }
    TellRecords();
    TellPopulationAndDetach();
    recorder_.KeepWhole(false);
    const JsonPtr file = LoadSteps("steps.json");
    for (json_t *step : Elements(json_object_get(file.get(), "steps")))
    {
        TakeWide(file.get(), step);
    }
    Compare();
}

} // namespace
} // namespace qdb::test
