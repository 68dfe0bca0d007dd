// Objects and attributes that can't be read as they stand, and that vanish or
// are repaired while the service tries again.

#include "core/json.h"
#include "events/bus_dispatch.h"
#include "events/dispatch.h"
#include "reconcile/population.h"
#include "standin/state.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"

#include <gtest/gtest.h>

namespace qdb::test
{
namespace
{

constexpr uint16_t kStatus = 0x1001;
constexpr uint16_t kRoot = 0x900;
constexpr uint16_t kDirty = 3;
constexpr uint16_t kCreate = 7;
constexpr uint32_t kOid = 16;
constexpr char kKey[] = "Test.1#Group.1#Name";
const std::string kPath =
    "/com/vexo/tarnu/Config/Attributes/test_1/group_1/name";

Bytes Object(uint16_t type, int value)
{
    return MakeObject(type, kOid,
                      type == kStatus
                          ? R"({"popStatus": )" + std::to_string(value) + "}"
                          : "{}");
}

template <uint16_t kType>
void Put(int value)
{
    EXPECT_EQ(standin::PutRawObject(Object(kType, value)), "");
}

// Its key can't be read.
template <uint16_t kType>
void Break()
{
    Bytes object = Object(kType, 2);
    object[0x15] = 0x20;
    EXPECT_EQ(standin::PutRawObject(object), "");
}

void Remove()
{
    standin::DeleteObjects(Words{kOid}, false);
}

void PutAttribute(int value)
{
    const JsonPtr values(
        json_pack("{s:s, s:i}", "DisplayName", "x", "currentValue", value));
    EXPECT_EQ(
        standin::PutAttribute("CfgIntAttribute", kKey, values.get(), kOid), "");
}

// Its display name can't be read.
void BreakAttribute()
{
    PutAttribute(2);
    standin::State &state = standin::TheState();
    const std::lock_guard lock(state.lock);
    state.attributes.at(kKey).bytes.at(0x21) = 0x20;
}

void RemoveAttribute()
{
    standin::RemoveAttribute(kKey);
}

template <uint16_t kKind>
int Notify()
{
    return ObjectNotification(EventOf(List(kKind, {kOid})), kKind);
}

template <uint16_t kKind>
int NotifyBus()
{
    constexpr uint16_t kFromBus = 65533;
    return ObjectNotificationDbus(
        EventOf(BusRecord(kKind, kOid, kPath,
                          "com.vexo.tarnu.Config.CfgIntAttribute")),
        kFromBus);
}

// A way into the tables.
struct Way
{
    const char *line; // of each attempt
    void (*put)(int value);
    void (*breakIt)();
    void (*remove)();
    int (*first)(); // makes the row of value 1; NULL: there is none
    int (*take)();
    const char *value; // of the row
};

// clang-format off
constexpr char kCreating[] = "ObjectNotification: DATA_EVENT_DATA_OBJ_CREATE: ";
constexpr char kChanging[] = "ObjectNotification: DATA_EVENT_DATA_OBJ_DIRTY_LIST: ";
constexpr char kPopStatus[] = "SELECT popStatus FROM TblDMStatus_Child_Obj";
constexpr char kCurrent[] = "SELECT currentValue FROM TblIntAttribute";
constexpr Way kCreated = {kCreating, Put<kStatus>, Break<kStatus>, Remove, nullptr, Notify<kCreate>, kPopStatus};
constexpr Way kChanged = {kChanging, Put<kStatus>, Break<kStatus>, Remove, Notify<kCreate>, Notify<kDirty>, kPopStatus};
constexpr Way kBusCreated = {kCreating, PutAttribute, BreakAttribute, RemoveAttribute, nullptr, NotifyBus<kCreate>, kCurrent};
constexpr Way kBusChanged = {kChanging, PutAttribute, BreakAttribute, RemoveAttribute, NotifyBus<kCreate>, NotifyBus<kDirty>, kCurrent};
constexpr Way kPopulated = {"OnLoadObjectsCreation: ", Put<kStatus>, Break<kStatus>, Remove, nullptr, OnLoadObjectsCreation, kPopStatus};
constexpr Way kRootData = {"InsertObjBasedOnObjType: ", Put<kRoot>, Break<kRoot>, Remove, nullptr, [] { return InsertObjBasedOnObjType(kRoot); }, "SELECT 7 FROM TbllmRootDataObj"};

const struct
{
    const char *name;
    const Way *way;
    int goneAt;
    int repairedAt;
    int result;
    int attempts;
    Lines value;
} kCases[] = {
    {"create, repaired at once", &kCreated, 0, 1, 0, 1, {"7"}},
    {"create, repaired at last", &kCreated, 0, 99, 0, 99, {"7"}},
    {"create, repaired too late", &kCreated, 0, 100, -1, 100, {}},
    {"create, vanishes", &kCreated, 1, 0, -1, 100, {}},
    {"create, vanishes and comes back", &kCreated, 1, 50, 0, 50, {"7"}},
    {"change, repaired at the third", &kChanged, 0, 3, 0, 3, {"7"}},
    {"change, never", &kChanged, 0, 0, -1, 100, {"1"}},
    {"change, vanishes", &kChanged, 2, 0, -1, 2, {"1"}},
    {"attribute, repaired at the third", &kBusCreated, 0, 3, 0, 3, {"7"}},
    {"attribute, never", &kBusCreated, 0, 0, -1, 100, {}},
    {"attribute, vanishes", &kBusCreated, 2, 0, -1, 2, {}},
    {"attribute's change, repaired at the third", &kBusChanged, 0, 3, 0, 3, {"7"}},
    {"attribute's change, vanishes", &kBusChanged, 1, 0, -1, 1, {"1"}},
    {"population, repaired at last", &kPopulated, 0, 99, 0, 99, {"7"}},
    {"population, vanishes", &kPopulated, 1, 0, -1, 100, {}},
    {"population, vanishes and comes back", &kPopulated, 1, 9, 0, 9, {"7"}},
    {"root data, repaired at last", &kRootData, 0, 99, 0, 99, {"7"}},
    {"root data, vanishes and comes back", &kRootData, 1, 9, 0, 9, {"7"}},
};
// clang-format on

using FetchAgain = DbTest;

TEST_F(FetchAgain, ObjectsAreFetchedAgain)
{
    for (const auto &test : kCases)
    {
        SCOPED_TRACE(test.name);
        const Way &way = *test.way;
        standin::Reset();
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        if (way.first != nullptr)
        {
            way.put(1);
            EXPECT_EQ(way.first(), 0);
        }
        way.breakIt();
        Restart();
        {
            const FateHook hook(std::string(way.line) +
                                    "ZO_STATUS_INVALID_VALUE returned\n",
                                test.goneAt, way.remove, test.repairedAt,
                                [&]
                                {
                                    way.put(7);
                                });
            EXPECT_EQ(way.take(), test.result);
            EXPECT_EQ(hook.Count(), test.attempts);
        }
        EXPECT_EQ(SleepCount(), 0);
        EXPECT_EQ(mirror_.Rows(way.value), test.value);
    }
}

// Only a create says so when the attribute vanished meanwhile.
TEST_F(FetchAgain, AttributesThatVanishAreToldOf)
{
    for (const Way *way : {&kBusCreated, &kBusChanged})
    {
        if (way->first != nullptr)
        {
            way->put(1);
            EXPECT_EQ(way->first(), 0);
        }
        way->breakIt();
        // The first fetch works, the second one doesn't.
        standin::SetFault("CfgIntAttribute_get_object", 5, 1, 1);
        CaptureLog(3);
        EXPECT_EQ(way->take(), -1);
        EXPECT_EQ(CountLog("ZO_STATUS_NO_SUCH_OBJECT3: " + kPath + "\n"),
                  way == &kBusCreated ? 1 : 0);
    }
}

} // namespace
} // namespace qdb::test
