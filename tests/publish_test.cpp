// Change signals and the bus service, on a real bus.
#include "core/state.h"
#include "publish/bus_connection.h"
#include "publish/bus_service.h"
#include "publish/change_signal.h"
#include "tests/support/change_listener.h"
#include "tests/support/log_capture.h"
#include "tests/support/mirror.h"
#include "tests/support/wait.h"

#include <map>
#include <optional>
#include <regex>
#include <set>
#include <thread>

namespace qdb::test
{
namespace
{

using Lines = std::vector<std::string>;

struct FreeBus
{
    void operator()(sd_bus *bus) const
    {
        sd_bus_flush_close_unref(bus);
    }
    void operator()(sd_bus_message *message) const
    {
        sd_bus_message_unref(message);
    }
};
template <typename T>
using BusPtr = std::unique_ptr<T, FreeBus>;

BusPtr<sd_bus> Connect()
{
    sd_bus *bus = nullptr;
    EXPECT_GE(sd_bus_open_system(&bus), 0);
    return BusPtr<sd_bus>(bus);
}

// The unique name that the service sends from.
std::string ServiceName()
{
    const BusLock lock;
    const char *name = nullptr;
    EXPECT_GE(sd_bus_get_unique_name(gBusConnection, &name), 0);
    return name == nullptr ? "" : name;
}

// The next message of the service.
BusPtr<sd_bus_message> NextMessage(sd_bus *bus)
{
    const std::string sender = ServiceName();
    BusPtr<sd_bus_message> message;
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            sd_bus_message *taken = nullptr;
            sd_bus_process(bus, &taken);
            message.reset(taken);
            return taken != nullptr &&
                   sd_bus_message_get_sender(taken) == sender;
        }));
    return message;
}

// --- Change signals -------------------------------------------------------

struct SignalTest : ::testing::Test
{
    SignalTest()
    {
        DbusEventsEnabled = 1;
    }

    Mirror mirror_;
};

TEST_F(SignalTest, EachSenderHasItsMember)
{
    const BusPtr<sd_bus> bus = Connect();
    ASSERT_GE(
        sd_bus_add_match(bus.get(), nullptr, "type='signal'", nullptr, nullptr),
        0);
    const struct
    {
        int (*send)(const char *jsonText);
        const char *member;
    } kCases[] = {
        {ChangeJsonAdded, "Vexo_qdb_Resource_Added"},
        {ChangeJsonChanged, "Vexo_qdb_Resource_Changed"},
        {ChangeJsonRemoved, "Vexo_qdb_Resource_Removed"},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.member);
        const std::string json = "{\"of\": \"" + std::string(c.member) + "\"}";
        CaptureLog();
        EXPECT_EQ(c.send(json.c_str()), 0);
        EXPECT_EQ(LogLines(), Lines{"buffer =" + json + "\n"});

        const BusPtr<sd_bus_message> signal = NextMessage(bus.get());
        ASSERT_NE(signal, nullptr);
        EXPECT_GT(
            sd_bus_message_is_signal(
                signal.get(), "com.vexo.tarnu.qdb.changeeventnotify", c.member),
            0);
        EXPECT_STREQ(sd_bus_message_get_path(signal.get()),
                     "/com/vexo/tarnu/qdb/changeeventnotify");
        EXPECT_STREQ(sd_bus_message_get_signature(signal.get(), 1), "s");
        EXPECT_EQ(sd_bus_message_get_destination(signal.get()), nullptr);
        const char *text = nullptr;
        EXPECT_GT(sd_bus_message_read(signal.get(), "s", &text), 0);
        EXPECT_EQ(text, json);
    }
}

// The texts of the changes; they were sent by one connection without a gap.
Lines TextsInSequence(const std::vector<Change> &changes)
{
    Lines texts;
    for (size_t i = 0; i < changes.size(); ++i)
    {
        EXPECT_EQ(changes[i].serial, changes[0].serial + i);
        texts.push_back(changes[i].json);
    }
    return texts;
}

TEST_F(SignalTest, ThreadsKeepTheirOrderAndLeaveNoGap)
{
    constexpr size_t kThreads = 10;
    constexpr size_t kEach = 200;
    const ChangeListener listener;
    std::vector<std::jthread> threads;
    for (size_t thread = 0; thread < kThreads; ++thread)
    {
        threads.emplace_back(
            [thread]
            {
                for (size_t i = 0; i < kEach; ++i)
                {
                    const std::string text =
                        std::to_string(thread) + ":" + std::to_string(i);
                    ChangeJsonChanged(text.c_str());
                }
            });
    }
    threads.clear();
    const Lines texts = TextsInSequence(listener.WaitFor(kThreads * kEach));
    ASSERT_EQ(texts.size(), kThreads * kEach);
    std::map<std::string, size_t> next;
    for (const std::string &text : texts)
    {
        const size_t colon = text.find(':');
        EXPECT_EQ(text.substr(colon + 1),
                  std::to_string(next[text.substr(0, colon)]++));
    }
    EXPECT_EQ(next.size(), kThreads);
}

TEST_F(SignalTest, NothingIsSentBeforeReadiness)
{
    const ChangeListener listener;
    DbusEventsEnabled = 0;
    CaptureLog();
    EXPECT_EQ(ChangeJsonAdded("early"), 0);
    EXPECT_EQ(ChangeJsonRemoved(nullptr), 0);
    DbusEventsEnabled = 1;
    EXPECT_EQ(ChangeJsonChanged(nullptr), 0);
    EXPECT_EQ(ChangeJsonAdded("late"), 0);
    EXPECT_EQ(LogLines(), (Lines{"buffer =early\n", "buffer =late\n"}));
    const std::vector<Change> changes = listener.WaitFor(1);
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(changes[0].json, "late");
}

TEST_F(SignalTest, SendingRefusesWhatItCannotSend)
{
    const ChangeListener listener;
    const struct
    {
        const char *name;
        const char *text;
        int kind;
        bool connected;
        Lines lines; // up to level 3
    } kCases[] = {
        {"kind 0", "x", 0, true, {"Not a valid signal\n"}},
        {"kind 5", "x", 5, true, {"Not a valid signal\n"}},
        {"kind -1", "x", -1, true, {"Not a valid signal\n"}},
        {"no text", nullptr, 1, true, {"Input buffer is NULL. Exit.\n"}},
        {"no text first", nullptr, 5, false, {"Input buffer is NULL. Exit.\n"}},
        {"no connection",
         "x",
         5,
         false,
         {"No active connection with Dbus. Exit.\n"}},
        {"kind 4", "good", 4, true, {}},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        CaptureLog(3);
        const BusLock lock;
        sd_bus *connection = gBusConnection;
        gBusConnection = c.connected ? connection : nullptr;
        send_dbus_signal(c.text, c.kind);
        gBusConnection = connection;
        EXPECT_EQ(LogLines(), c.lines);
    }
    const std::vector<Change> changes = listener.WaitFor(1);
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(changes[0].member, "Vexo_shmdb_Resource_Added");
    EXPECT_EQ(changes[0].json, "good");
}

BusPtr<sd_bus_message> Call(sd_bus *bus, const char *path,
                            const char *interface, const char *method)
{
    sd_bus_message *reply = nullptr;
    EXPECT_GE(sd_bus_call_method(bus, ServiceName().c_str(), path, interface,
                                 method, nullptr, &reply, nullptr),
              0);
    return BusPtr<sd_bus_message>(reply);
}

TEST_F(SignalTest, TheObjectShowsItsSignals)
{
    const BusPtr<sd_bus> bus = Connect();
    const BusPtr<sd_bus_message> reply =
        Call(bus.get(), "/com/vexo/tarnu/qdb/changeeventnotify",
             "org.freedesktop.DBus.Introspectable", "Introspect");
    const char *text = "";
    EXPECT_GT(sd_bus_message_read(reply.get(), "s", &text), 0);
    const std::string whole = text;
    const std::string begin =
        "<interface name=\"com.vexo.tarnu.qdb.changeeventnotify\">";
    const size_t from = whole.find(begin);
    ASSERT_NE(from, std::string::npos) << whole;
    const std::string interface =
        whole.substr(from, whole.find("</interface>", from) - from);
    const std::string signal = "<signal name=\"";
    const std::string end = "\"><arg type=\"s\"/></signal>";
    EXPECT_EQ(std::regex_replace(interface, std::regex("\n *"), ""),
              begin + signal + "Vexo_qdb_Resource_Added" + end + signal +
                  "Vexo_qdb_Resource_Changed" + end + signal +
                  "Vexo_qdb_Resource_Removed" + end + signal +
                  "Vexo_shmdb_Resource_Added" + end);
}

TEST_F(SignalTest, TheObjectManagerListsTheObject)
{
    const BusPtr<sd_bus> bus = Connect();
    const BusPtr<sd_bus_message> reply =
        Call(bus.get(), "/com/vexo/tarnu", "org.freedesktop.DBus.ObjectManager",
             "GetManagedObjects");
    sd_bus_message *message = reply.get();
    ASSERT_GT(sd_bus_message_enter_container(message, 'a', "{oa{sa{sv}}}"), 0);
    std::map<std::string, std::set<std::string>> objects;
    while (sd_bus_message_enter_container(message, 'e', "oa{sa{sv}}") > 0)
    {
        const char *path = nullptr;
        ASSERT_GT(sd_bus_message_read(message, "o", &path), 0);
        ASSERT_GT(sd_bus_message_enter_container(message, 'a', "{sa{sv}}"), 0);
        while (sd_bus_message_enter_container(message, 'e', "sa{sv}") > 0)
        {
            const char *interface = nullptr;
            ASSERT_GT(sd_bus_message_read(message, "s", &interface), 0);
            objects[path].insert(interface);
            sd_bus_message_skip(message, "a{sv}");
            sd_bus_message_exit_container(message);
        }
        sd_bus_message_exit_container(message);
        sd_bus_message_exit_container(message);
    }
    ASSERT_EQ(objects.size(), 1U);
    EXPECT_EQ(objects.begin()->first, "/com/vexo/tarnu/qdb/changeeventnotify");
    EXPECT_TRUE(objects.begin()->second.contains(
        "com.vexo.tarnu.qdb.changeeventnotify"));
}

// The bus takes nothing while this lives.
struct FrozenBus
{
    FrozenBus()
    {
        BusEnvironment::Bus().Freeze();
    }
    ~FrozenBus()
    {
        BusEnvironment::Bus().Thaw();
    }
};

uint64_t QueuedSignals()
{
    const BusLock lock;
    uint64_t queued = 0;
    sd_bus_get_n_queued_write(gBusConnection, &queued);
    return queued;
}

// The text of the n-th signal; long ones soon fill the socket.
std::string NumberedText(size_t number, bool isLong)
{
    return std::to_string(number) + std::string(isLong ? 65536 : 0, '.');
}

TEST_F(SignalTest, AStalledBusHoldsNobodyUpAndLosesNothing)
{
    // A few more than wait unheeded.
    constexpr uint64_t kMany = 1030;
    const ChangeListener listener;
    std::optional<FrozenBus> frozen(std::in_place);
    Lines sent;
    std::atomic<bool> done = false;
    std::jthread sender(
        [&]
        {
            for (uint64_t queued = 0; queued < kMany && sent.size() < 5 * kMany;
                 queued = QueuedSignals())
            {
                sent.push_back(NumberedText(sent.size(), queued == 0));
                ChangeJsonAdded(sent.back().c_str());
            }
            done = true;
        });
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            return done.load();
        }));
    frozen.reset();
    sender.join();
    // No further call pushes what has been left.
    EXPECT_GE(sent.size(), kMany);
    EXPECT_TRUE(TextsInSequence(listener.WaitFor(sent.size())) == sent);
}

// The connection of a cancelled bus thread, which stays open.
sd_bus *gFormerConnection = nullptr;

TEST_F(SignalTest, TheConnectionOutlivesItsThread)
{
    const ChangeListener listener;
    ChangeJsonAdded("before");
    CancelThread(gBusServiceThread);
    JoinThread(gBusServiceThread);
    ChangeJsonAdded("after");
    EXPECT_EQ(TextsInSequence(listener.WaitFor(2)), (Lines{"before", "after"}));

    // Its successor finds no bus, and every change tells so.
    gFormerConnection = gBusConnection.exchange(nullptr);
    gBusEventLoop = nullptr;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1);
    CaptureLog();
    int result = -1;
    std::thread(
        [&]
        {
            result = DbusMain();
        })
        .join();
    EXPECT_EQ(result, 1);
    ChangeJsonAdded("x");
    EXPECT_EQ(LogLines(),
              (Lines{"Entering DbusMain\n", "Failed to connect to bus\n",
                     "Exiting DbusMain\n", "buffer =x\n",
                     "No active connection with Dbus. Exit.\n"}));

    setenv("DBUS_SYSTEM_BUS_ADDRESS", BusEnvironment::Bus().Address().c_str(),
           1);
    StartThread(gBusServiceThread, RunBusServiceThread, nullptr, nullptr);
    EXPECT_TRUE(WaitUntil(
        []
        {
            return gBusEventLoop != nullptr;
        }));
    ChangeJsonAdded("again");
    EXPECT_EQ(listener.WaitFor(3).back().json, "again");
}

} // namespace
} // namespace qdb::test
