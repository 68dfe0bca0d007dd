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
#include "tests/support/wait.h"

namespace qdb::test
{
namespace
{

constexpr char kPath[] = "/com/vexo/tarnu/x";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kManager[] = "com.vexo.tarnu.CfgMgr";

// A record as a line; what the format doesn't allow is told in its place.
std::string Describe(const DataEventHeader &record)
{
    const auto word = [&](uint32_t at)
    {
        return RecordWord(record, at).value_or(0xDEAD);
    };
    const auto text = [&](uint32_t offsetAt)
    {
        const char *found = RecordText(record, word(offsetAt));
        return std::string(found == nullptr ? "outside" : found);
    };
    if (record.evtType == ZO_EVENT_RAW_DATA_UPDATE)
    {
        const std::string key = text(kRawKeyOffsetAt);
        const std::string path = text(kRawPathOffsetAt);
        EXPECT_EQ(word(kRawKeyOffsetAt), 24u);
        EXPECT_EQ(word(kRawPathOffsetAt), key.size() + 25);
        EXPECT_EQ(record.evtSize, key.size() + path.size() + 26);
        return "raw " + key + " " + path;
    }
    EXPECT_EQ(record.evtType, DATA_EVENT_DBUS_TO_QDB);
    EXPECT_EQ(record.evtFlags, 0);
    const uint32_t kind = word(kBusEventTypeAt);
    if (kind == DATA_EVENT_POP_UNLOADED)
    {
        EXPECT_EQ(record.evtSize, 32u);
        EXPECT_EQ(word(kBusPathOffsetAt) | word(kBusInterfaceOffsetAt), 0u);
        return "restart";
    }
    const std::string interface = text(kBusInterfaceOffsetAt);
    const std::string path = text(kBusPathOffsetAt);
    EXPECT_EQ(word(kBusInterfaceOffsetAt), 32u);
    EXPECT_EQ(word(kBusPathOffsetAt), interface.size() + 33);
    EXPECT_EQ(record.evtSize, interface.size() + path.size() + 34);
    return std::to_string(kind) + " " + std::to_string(word(kBusOidAt)) + " " +
           path + " " + interface;
}

// All records that are on the queue, which nobody else takes from.
Lines TakeRecords()
{
    Lines records;
    while (QdbEventQSize > 0)
    {
        const EventNodePtr node(QdbdeQueue(gQdbEventQueue));
        records.push_back(Describe(*node->data));
    }
    return records;
}

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
    BusSender sender_;
};

// Each rule with a signal that it means, and those that only look like one.
TEST_F(BusIntake, HearsWhatTheRulesNameAndNoNearMiss)
{
    const Mirror mirror;
    CaptureLog();
    const auto changed = [&](const std::string &interface)
    {
        sender_.Emit(kPath, kProperties, "PropertiesChanged", "sa{sv}as",
                     interface.c_str(), 1, "Speed", "u", 5, 0);
        return "3 0 /com/vexo/tarnu/x " + interface;
    };
    Lines expected;
    for (const char *interface :
         {"Config.CfgIntAttribute", "Config.CfgStrAttribute",
          "Config.CfgEnumAttribute", "Config.CfgPasswdAttribute",
          "Sensor.ProbeObj", "Sensor.FanExtObj", "Sensor.HvxStatusObj",
          "Sensor.IntrusionObj"})
    {
        expected.push_back(changed(std::string("com.vexo.tarnu.") + interface));
    }
    changed("com.vexo.tarnu.Config.CfgGroup");
    changed("com.vexo.tarnu.Sensor.ProbeObj2");
    changed("com.vexo.tarnu.Sensor");
    sender_.Emit(kPath, "other.Properties", "PropertiesChanged", "s",
                 kIntInterface);
    sender_.Emit(kPath, kProperties, "PropertiesInvalidated", "s",
                 kIntInterface);
    // Invalidated properties only, from another path.
    sender_.Emit("/", kProperties, "PropertiesChanged", "sa{sv}as",
                 kStrInterface, 0, 1, "Speed");
    expected.push_back(std::string("3 0 / ") + kStrInterface);

    // In the order of the names, the oid of another type read as 0, and the
    // path of the message, not of the object. The first "oid" of two counts.
    sender_.Emit("/com/vexo", "org.freedesktop.DBus.ObjectManager",
                 "InterfacesAdded", "oa{sa{sv}}", kPath, 4,         //
                 "z.z", 1, "oid", "u", 0xFFFFFFF0u,                 //
                 "b.b", 0,                                          //
                 "c.c", 2, "Speed", "a{sv}", 1, "k", "as", 1, "no", //
                 "oid", "t", uint64_t{77},                          //
                 "a.a", 2, "oid", "u", 7, "oid", "u", 8);
    expected.push_back("7 7 /com/vexo a.a");
    expected.push_back("7 0 /com/vexo c.c");
    expected.push_back("7 4294967280 /com/vexo z.z");
    sender_.Emit("/x", "any.interface", "InterfacesAdded", "oa{sa{sv}}", kPath,
                 1, kIntInterface, 1, "oid", "u", 9);
    expected.push_back(std::string("7 9 /x ") + kIntInterface);
    sender_.Emit("/x", "any.interface", "InterfacesRemoved", "oas", kPath, 1,
                 kIntInterface);
    sender_.Call("/x", "any.interface", "InterfacesAdded");

    sender_.Emit(kPath, kEnumInterface, "qdb_object_removed", "us", 11, "x");
    expected.push_back(std::string("8 11 /com/vexo/tarnu/x ") + kEnumInterface);
    sender_.Emit(kPath, kEnumInterface, "qdb_object_added", "us", 11, "x");

    sender_.Emit(kPath, "x.y", "RawDataUpdated", "ss", "Key", "/tmp/file");
    expected.push_back("raw Key /tmp/file");
    sender_.Emit(kPath, "x.y", "RawDataUpdate", "ss", "Key", "/tmp/file");

    // Only the bus itself is believed, and only a return counts.
    sender_.Emit("/org/freedesktop/DBus", "org.freedesktop.DBus",
                 "NameOwnerChanged", "sss", kManager, "", ":1.1");
    sender_.Own("com.vexo.tarnu.CfgMgr2");
    sender_.Own(kManager);
    expected.emplace_back("restart");
    sender_.Disown(kManager);
    sender_.Own(kManager);
    expected.emplace_back("restart");
    sender_.Disown(kManager);
    Sync();
    EXPECT_EQ(TakeRecords(), expected);
    EXPECT_EQ(CountLog("properties_changed: intf: com.vexo"), 9);
    EXPECT_EQ(CountLog("interfaces_added: path: /com/vexo/tarnu/x\n"), 2);
    EXPECT_EQ(CountLog("interfaces_added: oid: -16\n"), 1);

    // A commit makes no record; unknown interfaces have no groups to load.
    standin::PutAttribute("CfgIntAttribute", "A.1#B.1#C", nullptr);
    for (const auto &[member, interface, calls] :
         {std::tuple{"qdb_bulk_commit", kIntInterface, 2u},
          std::tuple{"qdb_bulk_commit", "x.y", 1u},
          std::tuple{"qdb_bulk_commit2", kIntInterface, 0u}})
    {
        SCOPED_TRACE(interface);
        const uint64_t before = standin::CallCount("client_get_objects");
        sender_.Emit(kPath, interface, member, "");
        Sync();
        EXPECT_EQ(standin::CallCount("client_get_objects") - before, calls);
    }
    EXPECT_EQ(mirror.Value("SELECT ParentObjectKey FROM TblIntAttribute"),
              "A.1#B.1");
    standin::SetFault("client_get_objects", 5, 1);
    sender_.Emit(kPath, kStrInterface, "qdb_bulk_commit", "");
    Sync();
    EXPECT_EQ(CountLog("Objects not found: CfgGroup 1\n"), 1);
    EXPECT_EQ(TakeRecords(), Lines{});
}

TEST(Handlers, EndWithOneLineOnWhatTheyCannotRead)
{
    const Mirror mirror;
    BusSender sender;
    const std::string text = "EX: sd_bus_message_read_basic string";
    const std::string number = "EX: sd_bus_message_read_basic fundamental";
    const std::string array =
        "EX: sd_bus_message_enter_container emplace_container";
    const auto check = [](int (*handler)(sdbusplus::message_t &),
                          sd_bus_message *unsent, const std::string &line)
    {
        const std::string types = sd_bus_message_get_signature(unsent, 1);
        SCOPED_TRACE(types);
        sdbusplus::message_t message(unsent);
        CaptureLog(3);
        EXPECT_EQ(handler(message), -1);
        const Lines lines = LogLines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_TRUE(lines[0].starts_with(line) && lines[0].back() == '\n')
            << lines[0];
    };
    // clang-format off
    check(properties_changed, sender.Unsent(""), text);
    check(properties_changed, sender.Unsent("u", 1), text);
    check(properties_changed, sender.Unsent("o", "/o"), text);
    check(object_removed, sender.Unsent(""), number);
    check(object_removed, sender.Unsent("i", 1), number);
    check(object_removed, sender.Unsent("u", 1), text);
    check(object_removed, sender.Unsent("uo", 1, "/o"), text);
    check(interfaces_added, sender.Unsent(""), text);
    check(interfaces_added, sender.Unsent("s", "x"), text);
    check(interfaces_added, sender.Unsent("o", "/o"), array);
    check(interfaces_added, sender.Unsent("os", "/o", "x"), array);
    check(interfaces_added, sender.Unsent("oa{sv}", "/o", 0), array);
    check(interfaces_added, sender.Unsent("oa{sa{ss}}", "/o", 0), array);
    check(interfaces_added, sender.Unsent("oa{sa{uv}}", "/o", 0), array);
    check(cfgmgr_name_owner_changed, sender.Unsent(""), text);
    check(raw_data_updated, sender.Unsent("s", "x"), text);
    check(raw_data_updated, sender.Unsent("su", "x", 1), text);
    // clang-format on
    EXPECT_EQ(TakeRecords(), Lines{});
}

// A member that no rule lets through. What the handlers tell is all that there
// is of it.
TEST(Handlers, TellWhatBecameOfNoRecord)
{
    const Mirror mirror;
    BusSender sender;
    const auto check = [&](int (*handler)(sdbusplus::message_t &),
                           sd_bus_message *unsent, int result,
                           const Lines &expected)
    {
        sdbusplus::message_t message(unsent);
        CaptureLog(2);
        EXPECT_EQ(handler(message), result);
        EXPECT_EQ(LogLines(), expected);
    };
    check(properties_changed, sender.Unsent("s", "c.c"), -22,
          {"properties_changed: intf: c.c\n",
           "properties_changed: update object failed: /com/vexo/tarnu/x\n"});
    check(object_removed, sender.Unsent("us", 5, "x"), 0,
          {"object_removed: remove object failed: /com/vexo/tarnu/x\n"});
    check(interfaces_added,
          sender.Unsent("oa{sa{sv}}", "/o", 3, "a.a", 1, "oid", "u", 7, "b.b",
                        0, "c.c", 1, "oid", "u", 8),
          0,
          Lines(2, "interfaces_added: add object failed: "
                   "/com/vexo/tarnu/x\n"));
    EXPECT_EQ(TakeRecords(), Lines{});
}

TEST(Translation, RefusesWhatItDoesNotKnowAndSurvivesWantOfMemory)
{
    const Mirror mirror;
    CaptureLog();
    EXPECT_EQ(
        qdb_signal_notification_callback("i.i", "PropertiesChange", "/", 1),
        -22);
    EXPECT_EQ(qdb_signal_cfgmgr_restart_callback("com.vexo.tarnu.CfgMg"), -22);
    EXPECT_EQ(LinesWith({"return as we did not get"}),
              (Lines{"return as we did not get desired signal  "
                     "[PropertiesChange]\n",
                     "return as we did not get desired signal "
                     "[com.vexo.tarnu.CfgMg]\n"}));
    standin::SetFault("ZOAllocMem", 0, 1);
    EXPECT_EQ(HandleSignalRawDataUpdated("k", "/f"), -12);
    EXPECT_EQ(CountLog("HandleSignalRawDataUpdated: failed to alloc memory for "
                       "data event\n"),
              1);
    tNoMemory = true;
    const int added =
        qdb_signal_notification_callback("i.i", "InterfacesAdded", "/", 1);
    const int restarted = qdb_signal_cfgmgr_restart_callback(kManager);
    tNoMemory = false;
    EXPECT_EQ(added, -12);
    EXPECT_EQ(restarted, -12);
    EXPECT_EQ(CountLog("Failed to allocate memory for pDEH\n"), 2);
    EXPECT_EQ(TakeRecords(), Lines{});
    CaptureLog();
    EXPECT_EQ(qdb_signal_notification_callback("", "InterfacesAdded", "", 5),
              0);
    EXPECT_EQ(HandleSignalRawDataUpdated("", ""), 0);
    EXPECT_EQ(CountLog("offsetIntf[32]  :: offsetPath [33]\n"), 1);
    EXPECT_EQ(TakeRecords(), (Lines{"7 5  ", "raw  "}));
}

// The manager's commits fill the tables, and its restart empties them.
TEST_F(BusIntake, KeepsTheAttributesOfAManagerThatComesAndGoes)
{
    const Mirror mirror({.threads = true});
    CaptureLog();
    const std::tuple<const char *, const char *, const char *> kKinds[] = {
        {"CfgIntAttribute", kIntInterface, "TblIntAttribute"},
        {"CfgStrAttribute", kStrInterface, "TblStrAttribute"},
        {"CfgEnumAttribute", kEnumInterface, "TblEnumAttribute"},
        {"CfgPasswdAttribute", kPasswdInterface, "TblPasswdAttribute"}};
    for (int round = 0; round < 2; ++round)
    {
        for (const auto &[name, interface, table] : kKinds)
        {
            standin::PutAttribute(name, std::string("A.1#B.1#") + table,
                                  nullptr);
            sender_.Emit(kPath, interface, "qdb_bulk_commit", "");
        }
        Sync();
        for (const auto &[name, interface, table] : kKinds)
        {
            EXPECT_EQ(
                mirror.Value(std::string("SELECT count(*) FROM ") + table),
                "1");
        }
        sender_.Own(kManager);
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                return mirror.Value("SELECT count(*) FROM "
                                    "ActiveOIDMapping") == "0";
            }));
        sender_.Disown(kManager);
    }
}

} // namespace
} // namespace qdb::test
