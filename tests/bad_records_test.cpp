// Records that are cut short or point outside of themselves, at each of those
// who read them: the listener, and the dispatch of their kind. Each lies in a
// block of its own size, so that a sanitizer sees what is read behind it.

#include "config/raw_data.h"
#include "events/bus_dispatch.h"
#include "events/dispatch.h"
#include "events/status_change.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"

namespace qdb::test
{
namespace
{

constexpr uint16_t kRawData = 1130;
constexpr uint16_t kFromBus = 65533;

// As a worker does.
int Dispatch(const Bytes &record)
{
    const DataEventHeader *event = EventOf(record);
    switch (event->evtType)
    {
    case DATA_EVENT_DBUS_TO_QDB:
        return ObjectNotificationDbus(event, event->evtType);
    case DATA_EVENT_OBJ_STATUS_CHG:
        return ObjectNotificationStChg(event);
    case ZO_EVENT_RAW_DATA_UPDATE:
        return ObjectNotificationRawData(event, event->evtType);
    default:
        return ObjectNotification(event, event->evtType);
    }
}

// A status change with an object of this size, in a record that has room for 20
// bytes of it.
Bytes Status(uint32_t size)
{
    return Record(4, {0, size, 0, 0, 0, 0});
}

const std::string kTexts("key\0/path\0", 10);

Bytes Raw(uint32_t keyAt, uint32_t pathAt, size_t claimed = SIZE_MAX)
{
    return Record(kRawData, {keyAt, pathAt}, kTexts, claimed);
}

const std::string kPath = "/com/vexo/tarnu/Config/Attributes/a_1/b_1/c";
const std::string kInt = "com.vexo.tarnu.Config.CfgIntAttribute";
const auto kIntAt = static_cast<uint32_t>(32 + kPath.size() + 1);
const auto kEnd = static_cast<uint32_t>(kIntAt + kInt.size() + 1);

Bytes Bus(uint32_t kind, uint32_t pathAt, uint32_t interfaceAt,
          size_t claimed = SIZE_MAX)
{
    return Record(kFromBus, {kind, 16, pathAt, interfaceAt},
                  kPath + '\0' + kInt + '\0', claimed);
}

std::string Count(const std::string &count)
{
    return "Invalid Obj Count in ObjList, notification not processed "
           "pOL->objCount=" +
           count + "\n";
}

std::string Unknown(const std::string &name)
{
    return "unknown intf/objType = " + name + ", notification not processed\n";
}

const std::string kEvent =
    "Invalid Event information, notification not processed\n";
const std::string kType = "Invalid Event Type, notification not processed\n";
const std::string kRaw = "ObjectNotificationRawData: Invalid Argument, "
                         "notification not processed\n";
const std::string kKind = ", notification not processed\n";
// clang-format off
const struct Case
{
    const char *name;
    Bytes record;
    bool dropped; // by the listener
    int result;   // of the dispatch
    std::string line = {}; // the last then; "": as the listener's
} kCases[] = {
    {"list of one more", List(3, Words(4001, 5)), false, 257, Count("4001")},
    {"absurd list", Record(3, {0xFFFFFFFF, 5}), false, 257, Count("4294967295")},
    {"list cut off", Record(3, {2, 5, 5}, "", 27), false, 257, Count("2")},
    {"list without count", Record(3, {1}, "", 19), true, 257, Count("0")},
    {"create without count", Record(7, {}), true, 257, Count("0")},
    {"destroy without count", Record(8, {1}, "", 17), true, 257, Count("0")},

    {"status without an object", Record(4, {0}), true, 2},
    {"status without the object's size", Record(4, {0, 16}, "", 23), true, 2},
    {"status of an object below a header", Status(15), true, 2},
    {"status of an object that is longer", Status(21), true, 2},
    {"status of the greatest object", Status(0xFFFFFFFF), true, 2},

    {"raw data without a path", Record(kRawData, {24}), true, 2, kRaw},
    {"raw data, path cut off", Raw(16, 16, 23), true, 2, kRaw},
    {"raw data, key at the end", Raw(34, 28), true, 2, kRaw},
    {"raw data, path at the end", Raw(24, 34), true, 2, kRaw},
    {"raw data, key far away", Raw(0xFFFFFFFF, 28), true, 2, kRaw},
    {"raw data, path far away", Raw(24, 0x80000018), true, 2, kRaw},
    {"raw data, endless path", Raw(24, 28, 33), true, 2, kRaw},
    {"raw data, endless key", Raw(28, 24, 33), true, 2, kRaw},
    {"raw data of no size", Raw(24, 28, 0), true, 2, kRaw},

    {"header alone", Record(kFromBus, {}), false, 2, kEvent},
    {"no path", Bus(7, 0, kIntAt), false, 2, kEvent},
    {"no interface", Bus(7, 32, 0), false, 2, kEvent},
    {"offsets cut off", Bus(7, 32, kIntAt, 31), false, 2, kEvent},
    {"path at the end", Bus(7, kEnd, kIntAt), false, 2, kType},
    {"interface at the end", Bus(7, 32, kEnd), false, 2, kType},
    {"path far behind", Bus(7, 0xFFFFFFFF, kIntAt), false, 2, kType},
    {"interface far behind", Bus(7, 32, 0xFFFFFFFF), false, 2, kType},
    {"interface without end", Bus(7, 32, kIntAt, kEnd - 1), false, 2, kType},
    {"path without end", Bus(7, kEnd - 2, 32, kEnd - 1), false, 2, kType},
    {"unknown kind", Bus(4, 32, kIntAt), false, 2, "unknown thisEventType = 4" + kKind},
    {"kind in the upper half", Bus(0x70000, 32, kIntAt), false, 2, "unknown thisEventType = 0" + kKind},
    {"unknown interface created", BusRecord(7, 16, kPath, kInt + "s"), false, -1, Unknown(kInt + "s")},
    {"unknown interface destroyed", BusRecord(8, 16, kPath, ""), false, -1, Unknown("")},
};
// clang-format on

using BadRecords = DbTest;

TEST_F(BadRecords, AreRefused)
{
    for (const Case &test : kCases)
    {
        SCOPED_TRACE(test.name);
        const DataEventHeader &header = *EventOf(test.record);
        const std::string drop =
            "event dropped: type: " + std::to_string(header.evtType) +
            " size: " + std::to_string(header.evtSize) +
            " is too short or badly formed\n";
        Restart();
        EXPECT_EQ(Dispatch(test.record), test.result);
        EXPECT_EQ(LogLines().back(), test.line.empty() ? drop : test.line);
        EXPECT_EQ(PrepareCount("") + StepCount(""), 0);
        Restart(2);
        gQdbReadyRetryPending = 1;
        GiveToListener(test.record);
        EXPECT_EQ(LogLines(), test.dropped ? Lines{drop} : Lines{});
        const bool queued = !test.dropped && header.evtType != kFromBus;
        EXPECT_EQ(TakeQueued().size(), queued ? 1U : 0U);
        EXPECT_EQ(gQdbReadyRetryPending, queued ? 0 : 1);
    }
    EXPECT_EQ(Dispatch(List(8, Words(4000, 5))), 0); // the greatest
    EXPECT_EQ(ObjectNotification(nullptr, 8), 2);
    EXPECT_EQ(ObjectNotificationDbus(nullptr, kFromBus), 2);
    EXPECT_EQ(ObjectNotificationDbus(EventOf(Bus(7, 32, kIntAt)), 7), 2);
    EXPECT_EQ(ObjectNotificationStChg(nullptr), 2);
    EXPECT_EQ(ObjectNotificationRawData(nullptr, kRawData), 2);
    Restart();
    EXPECT_EQ(ObjectNotificationRawData(EventOf(Raw(24, 28)), 7), 0);
    EXPECT_EQ(LogLines().back(), "Event received : 7 is not supported");
}

} // namespace
} // namespace qdb::test
