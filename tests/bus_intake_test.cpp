// The road by the bus: which signals are heard, what becomes of them as
// records, and how malformed ones end.
#include "busintake/handlers.h"
#include "busintake/signal_thread.h"
#include "busintake/translation.h"
#include "config/config_objects.h"
#include "core/cancel.h"
#include "core/state.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"
#include "tests/support/bus_sender.h"
#include "tests/support/db_fixture.h"
#include "tests/support/no_memory.h"

#include <algorithm>

namespace qdb::test
{
namespace
{

constexpr char kPath[] = "/com/vexo/tarnu/x";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kManager[] = "com.vexo.tarnu.CfgMgr";

// Words and texts of a record, the texts ended by '|'.
std::string Print(uint16_t type, const std::vector<uint32_t> &words,
                  const std::string &texts)
{
    std::string line = std::to_string(type);
    for (const uint32_t word : words)
    {
        line += " " + std::to_string(word);
    }
    return line + " " + texts;
}

// All records that are on the queue, which nobody else takes from.
Lines TakeRecords()
{
    Lines records;
    while (QdbEventQSize > 0)
    {
        const EventNodePtr node(QdbdeQueue(gQdbEventQueue));
        const DataEventHeader &record = *node->data;
        EXPECT_EQ(record.evtFlags, 0);
        const bool isRaw = record.evtType == ZO_EVENT_RAW_DATA_UPDATE;
        std::vector<uint32_t> words;
        uint32_t at = sizeof(DataEventHeader);
        for (; at < (isRaw ? 24u : 32u); at += 4)
        {
            words.push_back(RecordWord(record, at).value_or(0xDEAD));
        }
        std::string texts(reinterpret_cast<const char *>(&record) + at,
                          record.evtSize - at);
        std::ranges::replace(texts, '\0', '|');
        records.push_back(Print(record.evtType, words, texts));
    }
    return records;
}

// An object's record: its texts stand behind each other.
std::string Told(uint32_t kind, uint32_t oid, const std::string &path,
                 const std::string &interface)
{
    const auto pathAt = static_cast<uint32_t>(32 + interface.size() + 1);
    return Print(65533, {kind, oid, pathAt, 32}, interface + '|' + path + '|');
}

const std::string kRestart = Print(65533, {23, 0, 0, 0}, "");

// The signal thread, which can be cancelled once in the life of a process.
class BusIntake : public ::testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        CaptureLog();
        ASSERT_EQ(pthread_create(&gThread, nullptr,
                                 handle_sdbus_signal_Request_thread, nullptr),
                  0);
        WaitForLog("handle_sdbus_signal_Request_thread: loop started.\n");
    }
    static void TearDownTestSuite()
    {
        CaptureLog();
        SetCancelSignalThread();
        pthread_join(gThread, nullptr);
        EXPECT_EQ(LogLines(), Lines{"Canceled [CheckCancelSignalThread] \n"});
    }

    // Waits until the thread has handled all that was sent so far.
    void Sync()
    {
        static int number = 0;
        const std::string path = "/sync/" + std::to_string(++number);
        sender_.Emit("/", "s.y.n.c", "InterfacesAdded", "oa{sa{sv}}",
                     path.c_str(), 0);
        WaitForLog("interfaces_added: path: " + path + "\n");
    }

    inline static pthread_t gThread;
    const Mirror mirror_;
    BusSender sender_;
};

// Each rule with a signal that it means, and those that only look like one.
TEST_F(BusIntake, HearsWhatTheRulesNameAndNoNearMiss)
{
    CaptureLog();
    Lines expected;
    for (const auto &[interface, heard] :
         {std::pair("Config.CfgIntAttribute", true),
          {"Config.CfgStrAttribute", true},
          {"Config.CfgEnumAttribute", true},
          {"Config.CfgPasswdAttribute", true},
          {"Sensor.ProbeObj", true},
          {"Sensor.FanExtObj", true},
          {"Sensor.HvxStatusObj", true},
          {"Sensor.IntrusionObj", true},
          {"Config.CfgGroup", false},
          {"Sensor.ProbeObj2", false},
          {"Sensor", false}})
    {
        const std::string name = std::string("com.vexo.tarnu.") + interface;
        sender_.Emit(kPath, kProperties, "PropertiesChanged", "sa{sv}as",
                     name.c_str(), 1, "Speed", "u", 5, 0);
        if (heard)
        {
            expected.push_back(Told(3, 0, kPath, name));
        }
    }
    sender_.Emit(kPath, "other.Properties", "PropertiesChanged", "s",
                 kIntInterface);
    sender_.Emit(kPath, kProperties, "PropertiesInvalidated", "s",
                 kIntInterface);

    // In the order of the names, the oid of another type read as 0, and the
    // path of the message, not of the object. The first "oid" of two counts.
    sender_.Emit("/com/vexo", "org.freedesktop.DBus.ObjectManager",
                 "InterfacesAdded", "oa{sa{sv}}", kPath, 4,         //
                 "z.z", 1, "oid", "u", 0xFFFFFFF0u,                 //
                 "b.b", 0,                                          //
                 "c.c", 2, "Speed", "a{sv}", 1, "k", "as", 1, "no", //
                 "oid", "t", uint64_t{77},                          //
                 "a.a", 2, "oid", "u", 7, "oid", "u", 8);
    expected.push_back(Told(7, 7, "/com/vexo", "a.a"));
    expected.push_back(Told(7, 0, "/com/vexo", "c.c"));
    expected.push_back(Told(7, 4294967280, "/com/vexo", "z.z"));
    sender_.Emit("/x", "any.interface", "InterfacesRemoved", "oas", kPath, 1,
                 kIntInterface);
    sender_.Call("/x", "any.interface", "InterfacesAdded");

    sender_.Emit(kPath, kEnumInterface, "qdb_object_removed", "us", 11, "x");
    expected.push_back(Told(8, 11, kPath, kEnumInterface));
    sender_.Emit(kPath, kEnumInterface, "qdb_object_added", "us", 11, "x");

    sender_.Emit(kPath, "x.y", "RawDataUpdated", "ss", "Key", "/tmp/file");
    expected.push_back(Print(1130, {24, 28}, "Key|/tmp/file|"));
    sender_.Emit(kPath, "x.y", "RawDataUpdate", "ss", "Key", "/tmp/file");

    // Only the bus itself is believed, and only a return counts.
    sender_.Emit("/org/freedesktop/DBus", "org.freedesktop.DBus",
                 "NameOwnerChanged", "sss", kManager, "", ":1.1");
    sender_.Own("com.vexo.tarnu.CfgMgr2");
    sender_.Own(kManager);
    expected.push_back(kRestart);
    sender_.Disown(kManager);
    sender_.Own(kManager);
    expected.push_back(kRestart);
    sender_.Disown(kManager);
    Sync();
    EXPECT_EQ(TakeRecords(), expected);
}

// A commit makes no record, but loads its kind of attributes, with their
// groups.
TEST_F(BusIntake, LoadsWhatIsCommitted)
{
    const struct
    {
        const char *member;
        const char *interface;
        std::string name;   // of the attributes
        bool grouped;       // whether groups can be had
        uint64_t calls;     // of the library
        const char *parent; // of the row then
    } kCases[] = {
        {"qdb_bulk_commit", kIntInterface, "Int", true, 2, "A.1#B.1"},
        {"qdb_bulk_commit", kStrInterface, "Str", true, 2, "A.1#B.1"},
        {"qdb_bulk_commit", kEnumInterface, "Enum", true, 2, "A.1#B.1"},
        {"qdb_bulk_commit", kPasswdInterface, "Passwd", true, 2, "A.1#B.1"},
        {"qdb_bulk_commit2", kIntInterface, "Int", true, 0, "NULL"},
        {"qdb_bulk_commit", "x.y", "Int", true, 1, "NULL"},
        {"qdb_bulk_commit", kIntInterface, "Int", false, 1, "NULL"},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(std::string(c.member) + " of " + c.interface);
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        standin::PutAttribute("Cfg" + c.name + "Attribute", "A.1#B.1#" + c.name,
                              nullptr);
        standin::SetFault("client_get_objects", 5, c.grouped ? 0 : 1);
        CaptureLog();
        const uint64_t before = standin::CallCount("client_get_objects");
        sender_.Emit(kPath, c.interface, c.member, "");
        Sync();
        EXPECT_EQ(standin::CallCount("client_get_objects") - before, c.calls);
        EXPECT_EQ(mirror_.Value("SELECT max(ParentObjectKey) FROM Tbl" +
                                c.name + "Attribute"),
                  c.parent);
        EXPECT_EQ(CountLog("Objects not found: CfgGroup 1\n"), !c.grouped);
    }
    EXPECT_EQ(TakeRecords(), Lines{});
}

// What can't be read ends with one line, and so does a member that no rule lets
// through.
TEST(Handlers, TellWhyThereIsNoRecord)
{
    const Mirror mirror;
    const std::string kText = "EX: sd_bus_message_read_basic string";
    const std::string kNumber = "EX: sd_bus_message_read_basic fundamental";
    const std::string kArray =
        "EX: sd_bus_message_enter_container emplace_container";
    const std::string kFailed = " object failed: /com/vexo/tarnu/x\n";
    BusSender sender;
    const auto check = [](int (*handler)(sdbusplus::message_t &),
                          sd_bus_message *unsent, const std::string &line,
                          int result = -1)
    {
        SCOPED_TRACE(sd_bus_message_get_signature(unsent, 1));
        sdbusplus::message_t message(unsent);
        CaptureLog(3);
        EXPECT_EQ(handler(message), result);
        const Lines lines = LogLines();
        ASSERT_FALSE(lines.empty());
        EXPECT_TRUE(lines.back().starts_with(line)) << lines.back();
        EXPECT_TRUE(lines.back().ends_with("\n"));
    };
    // clang-format off
    check(properties_changed, sender.Unsent("u", 1), kText);
    check(properties_changed, sender.Unsent("s", "c.c"), "properties_changed: update" + kFailed, -22);
    check(object_removed, sender.Unsent("i", 1), kNumber);
    check(object_removed, sender.Unsent("uo", 1, "/o"), kText);
    check(object_removed, sender.Unsent("us", 5, "x"), "object_removed: remove" + kFailed, 0);
    check(interfaces_added, sender.Unsent("s", "x"), kText);
    check(interfaces_added, sender.Unsent("o", "/o"), kArray);
    check(interfaces_added, sender.Unsent("oa{sa{ss}}", "/o", 0), kArray);
    check(interfaces_added, sender.Unsent("oa{sa{sv}}", "/o", 1, "a.a", 1, "oid", "u", 7), "interfaces_added: add" + kFailed, 0);
    check(cfgmgr_name_owner_changed, sender.Unsent(""), kText);
    check(cfgmgr_name_owner_changed, sender.Unsent("s", "com.vexo.tarnu.CfgMg"), "return as we did not get desired signal [com.vexo.tarnu.CfgMg]", -22);
    check(raw_data_updated, sender.Unsent("su", "x", 1), kText);
    // clang-format on
    EXPECT_EQ(TakeRecords(), Lines{});
}

TEST(Translation, SurvivesWantOfMemoryAndEmptyTexts)
{
    const Mirror mirror;
    const auto add = []
    {
        return qdb_signal_notification_callback("", "InterfacesAdded", "", 5);
    };
    standin::SetFault("ZOAllocMem", 0, 1);
    tNoMemory = true;
    const int added = add();
    const int restarted = qdb_signal_cfgmgr_restart_callback(kManager);
    tNoMemory = false;
    EXPECT_EQ(added, -12);
    EXPECT_EQ(restarted, -12);
    EXPECT_EQ(HandleSignalRawDataUpdated("k", "/f"), -12);
    EXPECT_EQ(TakeRecords(), Lines{});
    EXPECT_EQ(add(), 0);
    EXPECT_EQ(HandleSignalRawDataUpdated("", ""), 0);
    EXPECT_EQ(TakeRecords(),
              (Lines{Told(7, 5, "", ""), Print(1130, {24, 25}, "||")}));
}

// What anybody sends is bounded in bytes, whatever its shape, and lets the next
// one in once it has been worked off.
TEST(Translation, HoldsStrangersToSixteenMebibytes)
{
    const Mirror mirror;
    const std::string longText(60000, 'x');
    const struct
    {
        std::function<int()> queue;
        size_t texts; // bytes of each record's texts
        const char *line;
    } kCases[] = {
        // clang-format off
        {[&] { return qdb_signal_notification_callback("i", "InterfacesAdded", longText.c_str(), 5); },
         60003, "Failed to allocate memory for pDEH\n"},
        {[] { return qdb_signal_notification_callback("", "PropertiesChanged", "", 0); },
         2, "Failed to allocate memory for pDEH\n"},
        {[&] { return HandleSignalRawDataUpdated("key", longText.c_str()); },
         60005, "HandleSignalRawDataUpdated: failed to alloc memory for data event\n"},
        // clang-format on
    };
    constexpr size_t kMost = 16 << 20;
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.line);
        const size_t bound = kMost / c.texts + 1;
        size_t queued = 0;
        CaptureLog(0);
        while (queued < bound && c.queue() == 0)
        {
            ++queued;
        }
        EXPECT_LT(queued, bound);
        EXPECT_GT(queued * (c.texts + 100), kMost * 98 / 100);
        CaptureLog();
        EXPECT_EQ(c.queue(), -12);
        EXPECT_EQ(CountLog(c.line), 1);
        TakeRecords();
        EXPECT_EQ(c.queue(), 0);
        TakeRecords();
    }
}

} // namespace
} // namespace qdb::test
