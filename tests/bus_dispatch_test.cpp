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

const std::string kInt = "com.vexo.tarnu.Config.CfgIntAttribute";
const std::string kKey = "Test.1#Group.1#Name";
const std::string kPath =
    "/com/vexo/tarnu/Config/Attributes/test_1/group_1/name";

int Notify(uint16_t kind)
{
    return ObjectNotificationDbus(EventOf(BusRecord(kind, 16, kPath, kInt)),
                                  65533);
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

using BusDispatch = DbTest;

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
