// From the bus's records to the handlers of configuration attributes.

#include "core/json.h"
#include "events/bus_dispatch.h"
#include "objects/catalogue.h"
#include "platform/standin/state.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"

#include <gtest/gtest.h>

namespace qdb::test
{
namespace
{

constexpr uint16_t kDirty = 3;
constexpr uint16_t kCreate = 7;
constexpr uint16_t kDestroy = 8;

const std::string kInt = "com.vexo.tarnu.Config.CfgIntAttribute";
const std::string kKey = "Test.1#Group.1#Name";
const std::string kPath =
    "/com/vexo/tarnu/Config/Attributes/test_1/group_1/name";

int Notify(const Bytes &record)
{
    return ObjectNotificationDbus(EventOf(record), 65533);
}

int Notify(uint16_t kind, uint32_t oid = 16)
{
    return Notify(BusRecord(kind, oid, kPath, kInt));
}

void Put(const std::string &values)
{
    const JsonPtr parsed(json_loads(values.c_str(), 0, nullptr));
    EXPECT_EQ(standin::PutAttribute("CfgIntAttribute", kKey, parsed.get(), 16),
              "");
}

// An attribute whose display name can't be read as it stands.
void PutBroken()
{
    Put(R"({"DisplayName": "x"})");
    standin::State &state = standin::TheState();
    const std::lock_guard lock(state.lock);
    state.attributes.at(kKey).bytes.at(0x21) = 0x20;
}

class BusDispatch : public DbTest
{
  protected:
    std::string Mapped()
    {
        return mirror_.Value("SELECT count(*) FROM ActiveOIDMapping");
    }
};

TEST_F(BusDispatch, RefusesMalformedRecords)
{
    const std::string event =
        "Invalid Event information, notification not processed\n";
    const std::string type = "Invalid Event Type, notification not processed\n";
    const auto unknown = [](const std::string &name)
    {
        return "unknown intf/objType = " + name +
               ", notification not processed\n";
    };
    const auto body = [](uint32_t kind, uint32_t path, uint32_t interfaceAt,
                         size_t claimed = SIZE_MAX)
    {
        return Record(65533, {kind, 16, path, interfaceAt},
                      kPath + '\0' + kInt + '\0', claimed);
    };
    const auto intAt = static_cast<uint32_t>(32 + kPath.size() + 1);
    const size_t size = body(7, 32, intAt).size();
    const auto end = static_cast<uint32_t>(size);
    struct Case
    {
        const char *name;
        Bytes record;
        int result;
        std::string line;
    };
    // clang-format off
    const Case cases[] = {
        {"header alone", Record(65533, {}), 2, event},
        {"no path", body(7, 0, intAt), 2, event},
        {"no interface", body(7, 32, 0), 2, event},
        {"offsets cut off", body(7, 32, intAt, 31), 2, event},
        {"path at the end", body(7, end, intAt), 2, type},
        {"interface at the end", body(7, 32, end), 2, type},
        {"path far behind", body(7, 0xFFFFFFFF, intAt), 2, type},
        {"interface far behind", body(7, 32, 0xFFFFFFFF), 2, type},
        {"interface without end", body(7, 32, intAt, size - 1), 2, type},
        {"path without end", body(7, end - 2, 32, size - 1), 2, type},
        {"cut off before the interface", body(7, 32, intAt, intAt), 2, type},
        {"unknown kind", body(4, 32, intAt), 2, "unknown thisEventType = 4, notification not processed\n"},
        {"kind in the upper half", body(0x70000, 32, intAt), 2, "unknown thisEventType = 0, notification not processed\n"},
        {"unknown interface created", BusRecord(kCreate, 16, kPath, kInt + "s"), -1, unknown(kInt + "s")},
        {"unknown interface changed", BusRecord(kDirty, 16, kPath, "CfgIntAttribute"), -1, unknown("CfgIntAttribute")},
        {"unknown interface destroyed", BusRecord(kDestroy, 16, kPath, ""), -1, unknown("")},
    };
    // clang-format on
    Put("{}");
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        Restart();
        EXPECT_EQ(Notify(test.record), test.result);
        EXPECT_EQ(LogLines().back(), test.line);
        EXPECT_EQ(PrepareCount("") + StepCount(""), 0);
    }
    Restart();
    EXPECT_EQ(ObjectNotificationDbus(nullptr, 65533), 2);
    EXPECT_EQ(
        ObjectNotificationDbus(EventOf(BusRecord(kCreate, 16, kPath, kInt)), 7),
        2);
    EXPECT_EQ(LogLines(), (Lines{"Entry",
                                 "Invalid Argument pDEH null, notification "
                                 "not processed\n",
                                 "Entry", type}));
    EXPECT_EQ(Mapped(), "0");
}

TEST_F(BusDispatch, FetchesUnreadableAttributesAgain)
{
    const struct
    {
        const char *name;
        uint16_t kind;
        int goneAt;
        int mendedAt;
        int result;
        int lines;
        const char *value;
    } cases[] = {
        {"create, mended at the third", kCreate, 0, 3, 0, 3, "7"},
        {"create, never", kCreate, 0, 0, -1, 100, nullptr},
        {"create, vanishes", kCreate, 2, 0, -1, 2, nullptr},
        {"refresh, mended at the third", kDirty, 0, 3, 0, 3, "7"},
        {"refresh, vanishes", kDirty, 1, 0, -1, 1, "1"},
    };
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        standin::Reset();
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        if (test.kind == kDirty)
        {
            Put(R"({"currentValue": 1})");
            EXPECT_EQ(Notify(kCreate), 0);
        }
        PutBroken();
        Restart();
        {
            const FateHook hook(
                std::string("ObjectNotification: DATA_EVENT_DATA_OBJ_") +
                    (test.kind == kCreate ? "CREATE" : "DIRTY_LIST") +
                    ": ZO_STATUS_INVALID_VALUE returned\n",
                test.goneAt,
                []
                {
                    standin::RemoveAttribute(kKey);
                },
                test.mendedAt,
                []
                {
                    Put(R"({"DisplayName": "x", "currentValue": 7})");
                });
            EXPECT_EQ(Notify(test.kind), test.result);
            EXPECT_EQ(hook.Count(), test.lines);
        }
        EXPECT_EQ(SleepCount(), 0);
        EXPECT_EQ(mirror_.Rows("SELECT currentValue FROM TblIntAttribute"),
                  test.value == nullptr ? Lines{} : Lines{test.value});
    }
}

// Only a create says so when the attribute vanished meanwhile.
TEST_F(BusDispatch, TellsOfAttributesThatVanish)
{
    const auto notify = [](uint16_t kind)
    {
        PutBroken();
        // The first fetch works, the second one doesn't.
        standin::SetFault("CfgIntAttribute_get_object", 5, 1, 1);
        CaptureLog(3);
        EXPECT_EQ(Notify(kind), -1);
    };
    notify(kCreate);
    EXPECT_EQ(CountLog("ZO_STATUS_NO_SUCH_OBJECT3: " + kPath + "\n"), 1);
    Put(R"({"DisplayName": "x"})");
    EXPECT_EQ(Notify(kCreate), 0);
    notify(kDirty);
    EXPECT_EQ(CountLog("ZO_STATUS_NO_SUCH_OBJECT"), 0);
}

} // namespace
} // namespace qdb::test
