// Change signals and the bus service, on a real bus.
#include "core/state.h"
#include "publish/bus_connection.h"
#include "publish/bus_service.h"
#include "publish/change_signal.h"
#include "tests/support/change_listener.h"
#include "tests/support/log_capture.h"
#include "tests/support/mirror.h"
#include "tests/support/text.h"
#include "tests/support/wait.h"

#include <map>
#include <thread>

namespace qdb::test
{
namespace
{

using Lines = std::vector<std::string>;

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
    DbusEventsEnabled = 1;
    EXPECT_EQ(ChangeJsonChanged(nullptr), 0);
    EXPECT_EQ(ChangeJsonAdded("late"), 0);
    EXPECT_EQ(LogLines(), (Lines{"buffer =early\n", "buffer =late\n"}));
    EXPECT_EQ(TextsInSequence(listener.WaitFor(1)), Lines{"late"});
}

TEST_F(SignalTest, SendingRefusesWhatItCannotSend)
{
    const ChangeListener listener;
    const Lines kNoText = {"Input buffer is NULL. Exit.\n"};
    const Lines kNoKind = {"Not a valid signal\n"};
    const Lines kNoBus = {"No active connection with Dbus. Exit.\n"};
    const struct
    {
        const char *text;
        int kind;
        bool connected;
        Lines lines; // up to level 3
    } kCases[] = {
        {"x", 0, true, kNoKind},      {"x", 5, true, kNoKind},
        {nullptr, 5, false, kNoText}, {"x", 5, false, kNoBus},
        {"good", 4, true, {}},
    };
    for (const auto &c : kCases)
    {
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

// A daemon would disconnect who sends more, and nothing would be announced any
// more.
TEST_F(SignalTest, ATextThatNoMessageHoldsIsDroppedAlone)
{
    const ChangeListener listener;
    const std::string longest((32 << 20) - (64 << 10), 'x');
    CaptureLog(3);
    ChangeJsonAdded((longest + "x").c_str());
    EXPECT_EQ(LogLines(), Lines{"Failed to emit signal sd_bus_send: Message "
                                "too long\n"});
    ChangeJsonAdded(longest.c_str());
    ChangeJsonChanged("next");
    const Lines texts = TextsInSequence(listener.WaitFor(2));
    ASSERT_EQ(texts.size(), 2U);
    EXPECT_TRUE(texts[0] == longest);
    EXPECT_EQ(texts[1], "next");
}

// What busctl and the like are told of the service's object.
TEST_F(SignalTest, TheObjectShowsItsSignals)
{
    const char *service = nullptr;
    {
        const BusLock lock;
        ASSERT_GE(sd_bus_get_unique_name(gBusConnection, &service), 0);
    }
    sd_bus *bus = nullptr;
    sd_bus_message *reply = nullptr;
    const char *text = "";
    EXPECT_GE(sd_bus_open_system(&bus), 0);
    EXPECT_GE(sd_bus_call_method(bus, service,
                                 "/com/vexo/tarnu/qdb/changeeventnotify",
                                 "org.freedesktop.DBus.Introspectable",
                                 "Introspect", nullptr, &reply, nullptr),
              0);
    EXPECT_GT(sd_bus_message_read(reply, "s", &text), 0);
    const std::string xml = Replaced(text, "\n *", "");
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    std::string expected =
        R"(<interface name="com.vexo.tarnu.qdb.changeeventnotify">)";
    for (const std::string name :
         {"qdb_Resource_Added", "qdb_Resource_Changed", "qdb_Resource_Removed",
          "shmdb_Resource_Added"})
    {
        expected +=
            "<signal name=\"Vexo_" + name + "\"><arg type=\"s\"/></signal>";
    }
    EXPECT_NE(xml.find(expected + "</interface>"), std::string::npos) << xml;
}

uint64_t QueuedSignals()
{
    const BusLock lock;
    uint64_t queued = 0;
    sd_bus_get_n_queued_write(gBusConnection, &queued);
    return queued;
}

TEST_F(SignalTest, AStalledBusHoldsNobodyUpAndLosesNothing)
{
    // A few more than wait unheeded.
    constexpr uint64_t kMany = 1030;
    const ChangeListener listener;
    BusEnvironment::Bus().Freeze();
    Lines sent;
    std::atomic<bool> done = false;
    std::jthread sender(
        [&]
        {
            for (uint64_t queued = 0; queued < kMany && sent.size() < 5 * kMany;
                 queued = QueuedSignals())
            {
                // Long ones soon fill the socket.
                sent.push_back(std::to_string(sent.size()) +
                               std::string(queued == 0 ? 65536 : 0, '.'));
                ChangeJsonAdded(sent.back().c_str());
            }
            done = true;
        });
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            return done.load();
        }));
    BusEnvironment::Bus().Thaw();
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
    std::thread(
        []
        {
            EXPECT_EQ(DbusMain(), 1);
        })
        .join();
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
