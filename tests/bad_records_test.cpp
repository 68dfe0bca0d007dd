// Records that are cut short or point outside of themselves, at each of those
// who read them. Each lies in a block of its own size, so that a sanitizer sees
// what is read behind it.

#include "config/raw_data.h"
#include "events/bus_dispatch.h"
#include "events/dispatch.h"
#include "events/status_change.h"
#include "tests/support/config_bytes.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"

#include <gtest/gtest.h>

namespace qdb::test
{
namespace
{

constexpr uint16_t kDestroy = 8;
constexpr uint16_t kStatusChange = 4;
constexpr uint16_t kRawData = 1130;
constexpr uint16_t kFromBus = 65533;

int TakeList(const DataEventHeader *record)
{
    return ObjectNotification(record, kDestroy);
}

int TakeBus(const DataEventHeader *record)
{
    return ObjectNotificationDbus(record, kFromBus);
}

int TakeRaw(const DataEventHeader *record)
{
    return ObjectNotificationRawData(record, kRawData);
}

int TakeStatus(const DataEventHeader *record)
{
    return ObjectNotificationStChg(record);
}

// A list that claims `count` OIDs and has them.
Bytes Whole(uint32_t count)
{
    return List(kDestroy, Words(count, 5));
}

const std::string kPath = "/com/vexo/tarnu/Config/Attributes/a_1/b_1/c";
const std::string kInt = "com.vexo.tarnu.Config.CfgIntAttribute";
const auto kIntAt = static_cast<uint32_t>(32 + kPath.size() + 1);
const auto kEnd = static_cast<uint32_t>(kIntAt + kInt.size() + 1);

Bytes Bus(uint32_t kind, uint32_t path, uint32_t interfaceAt,
          size_t claimed = SIZE_MAX)
{
    return Record(kFromBus, {kind, 16, path, interfaceAt},
                  kPath + '\0' + kInt + '\0', claimed);
}

Bytes Status(const Bytes &object, size_t cut = 0)
{
    std::string text(object.begin(), object.end());
    text.resize(text.size() - cut);
    return Record(kStatusChange, {0}, text);
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

using BadRecords = DbTest;

TEST_F(BadRecords, AreRefused)
{
    const std::string event =
        "Invalid Event information, notification not processed\n";
    const std::string type = "Invalid Event Type, notification not processed\n";
    const std::string raw = "ObjectNotificationRawData: Invalid Argument, "
                            "notification not processed\n";
    const std::string kind = ", notification not processed\n";
    const std::string texts("key\0/path\0", 10);
    const Bytes object = MakeObject(0x1001, 7);
    // clang-format off
    const struct
    {
        const char *name;
        int (*take)(const DataEventHeader *);
        Bytes record;
        int result;
        std::string line; // the last; "": not looked at
    } cases[] = {
        {"empty list", TakeList, Whole(0), 0, ""},
        {"greatest list", TakeList, Whole(4000), 0, ""},
        {"list of one more", TakeList, Whole(4001), 257, Count("4001")},
        {"absurd list", TakeList, Record(kDestroy, {0xFFFFFFFF, 5}), 257, Count("4294967295")},
        {"list cut off", TakeList, Record(kDestroy, {2, 5, 5}, "", 27), 257, Count("2")},
        {"list without OIDs", TakeList, Record(kDestroy, {1}), 257, Count("1")},

        {"header alone", TakeBus, Record(kFromBus, {}), 2, event},
        {"no path", TakeBus, Bus(7, 0, kIntAt), 2, event},
        {"no interface", TakeBus, Bus(7, 32, 0), 2, event},
        {"offsets cut off", TakeBus, Bus(7, 32, kIntAt, 31), 2, event},
        {"path at the end", TakeBus, Bus(7, kEnd, kIntAt), 2, type},
        {"interface at the end", TakeBus, Bus(7, 32, kEnd), 2, type},
        {"path far behind", TakeBus, Bus(7, 0xFFFFFFFF, kIntAt), 2, type},
        {"interface far behind", TakeBus, Bus(7, 32, 0xFFFFFFFF), 2, type},
        {"interface without end", TakeBus, Bus(7, 32, kIntAt, kEnd - 1), 2, type},
        {"path without end", TakeBus, Bus(7, kEnd - 2, 32, kEnd - 1), 2, type},
        {"cut off before the interface", TakeBus, Bus(7, 32, kIntAt, kIntAt), 2, type},
        {"unknown kind", TakeBus, Bus(4, 32, kIntAt), 2, "unknown thisEventType = 4" + kind},
        {"kind in the upper half", TakeBus, Bus(0x70000, 32, kIntAt), 2, "unknown thisEventType = 0" + kind},
        {"unknown interface created", TakeBus, BusRecord(7, 16, kPath, kInt + "s"), -1, Unknown(kInt + "s")},
        {"unknown interface destroyed", TakeBus, BusRecord(8, 16, kPath, ""), -1, Unknown("")},

        {"status without a head", TakeStatus, Record(kStatusChange, {}), 2, ""},
        {"status without an object", TakeStatus, Record(kStatusChange, {0}), 2, ""},
        {"status cut off", TakeStatus, Status(object, 1), 2, ""},
        {"status of a small object", TakeStatus, Status(With(object, kSizeWord, 15)), 2, ""},
        {"status of a large object", TakeStatus, Status(With(object, kSizeWord, 0xFFFFFFF0)), 2, ""},

        {"raw data alone", TakeRaw, Record(kRawData, {}), 2, raw},
        {"raw data without a path", TakeRaw, Record(kRawData, {24}), 2, raw},
        {"raw data, path cut off", TakeRaw, Record(kRawData, {24, 28}, texts, 23), 2, raw},
        {"raw data, key at the end", TakeRaw, Record(kRawData, {34, 28}, texts), 2, raw},
        {"raw data, path at the end", TakeRaw, Record(kRawData, {24, 34}, texts), 2, raw},
        {"raw data, key far away", TakeRaw, Record(kRawData, {0xFFFFFFFF, 28}, texts), 2, raw},
        {"raw data, path far away", TakeRaw, Record(kRawData, {24, 0x80000018}, texts), 2, raw},
        {"raw data, endless path", TakeRaw, Record(kRawData, {24, 28}, texts, 33), 2, raw},
        {"raw data, endless key", TakeRaw, Record(kRawData, {24, 24}, texts, 27), 2, raw},
        {"raw data of no size", TakeRaw, Record(kRawData, {24, 28}, texts, 0), 2, raw},
    };
    // clang-format on
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        Restart();
        EXPECT_EQ(test.take(EventOf(test.record)), test.result);
        if (!test.line.empty())
        {
            EXPECT_EQ(LogLines().back(), test.line);
        }
        if (test.result != 0)
        {
            EXPECT_EQ(PrepareCount("") + StepCount(""), 0);
        }
    }
    for (const auto &take : {TakeList, TakeBus, TakeStatus, TakeRaw})
    {
        EXPECT_EQ(take(nullptr), 2);
    }
    EXPECT_EQ(ObjectNotificationDbus(EventOf(Bus(7, 32, kIntAt)), 7), 2);
    EXPECT_EQ(ObjectNotificationRawData(
                  EventOf(Record(kRawData, {24, 28}, texts)), 7),
              0);
    EXPECT_EQ(LogLines().back(), "Event received : 7 is not supported");
}

} // namespace
} // namespace qdb::test
