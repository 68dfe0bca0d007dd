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

struct SignalTest : ::testing::Test
{
    SignalTest()
    {
        DbusEventsEnabled = 1;
    }

    Mirror mirror_;
};

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
    const Lines kNoText = {"Input buffer is NULL. Exit.\n"};
    const Lines kNoKind = {"Not a valid signal\n"};
    const struct
    {
        const char *name;
        const char *text;
        int kind;
        bool connected;
        Lines lines; // up to level 3
    } kCases[] = {
        {"kind 0", "x", 0, true, kNoKind},
        {"kind 5", "x", 5, true, kNoKind},
        {"no text", nullptr, 1, true, kNoText},
        {"no text first", nullptr, 5, false, kNoText},
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

// What busctl and the like are told of the service's object.
TEST_F(SignalTest, TheObjectShowsItsSignals)
{
    const BusPtr<sd_bus> bus = Connect();
    const auto call =
        [&](const char *path, const char *interface, const char *method)
    {
        sd_bus_message *reply = nullptr;
        EXPECT_GE(sd_bus_call_method(bus.get(), ServiceName().c_str(), path,
                                     interface, method, nullptr, &reply,
                                     nullptr),
                  0);
        return BusPtr<sd_bus_message>(reply);
    };
    const auto introspected =
        call("/com/vexo/tarnu/qdb/changeeventnotify",
             "org.freedesktop.DBus.Introspectable", "Introspect");
    const char *text = "";
    EXPECT_GT(sd_bus_message_read(introspected.get(), "s", &text), 0);
    const std::string xml =
        std::regex_replace(std::string(text), std::regex("\n *"), "");
    const std::string signal = "<signal name=\"";
    const std::string end = "\"><arg type=\"s\"/></signal>";
    EXPECT_NE(xml.find("<interface name=\"com.vexo.tarnu.qdb."
                       "changeeventnotify\">" +
                       signal + "Vexo_qdb_Resource_Added" + end + signal +
                       "Vexo_qdb_Resource_Changed" + end + signal +
                       "Vexo_qdb_Resource_Removed" + end + signal +
                       "Vexo_shmdb_Resource_Added" + end + "</interface>"),
              std::string::npos)
        << xml;
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
