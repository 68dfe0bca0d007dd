// Objects and attributes that can't be read as they stand, and that vanish or
// are repaired while the service tries again.

#include "reconcile/population.h"
#include "standin/state.h"
#include "tests/support/handler_fixture.h"
#include "tests/support/stream_driver.h"

namespace qdb::test
{
namespace
{

constexpr uint32_t kOid = 16;

// A way into the tables.
struct Way
{
    uint16_t type;
    const char *column; // that gets the value
    bool isChange;      // of a row with the value 1
    const char *line;   // of each attempt
    int (*take)(const Subject &);
};

// clang-format off
constexpr char kCreating[] = "ObjectNotification: DATA_EVENT_DATA_OBJ_CREATE: ";
constexpr char kChanging[] = "ObjectNotification: DATA_EVENT_DATA_OBJ_DIRTY_LIST: ";
int Create(const Subject &subject) { return Notify(subject, kCreate); }
int Change(const Subject &subject) { return Notify(subject, kDirty); }
int Populate(const Subject &) { return OnLoadObjectsCreation(); }
int LoadType(const Subject &subject) { return InsertObjBasedOnObjType(subject.row->objType); }
constexpr Way kCreated = {kStatus, "popStatus", false, kCreating, Create};
constexpr Way kChanged = {kStatus, "popStatus", true, kChanging, Change};
constexpr Way kBusCreated = {0x4051, "currentValue", false, kCreating, Create};
constexpr Way kBusChanged = {0x4051, "currentValue", true, kChanging, Change};
constexpr Way kPopulated = {kStatus, "popStatus", false, "OnLoadObjectsCreation: ", Populate};
constexpr Way kLoaded = {kStatus, "popStatus", false, "InsertObjBasedOnObjType: ", LoadType};

const struct
{
    const char *name;
    const Way *way;
    int goneAt;     // the attempt; 0: none
    int repairedAt; // with the value 7
    int result;
    int attempts;
    Lines value;
} kCases[] = {
    {"create, repaired at last", &kCreated, 0, 99, 0, 99, {"7"}},
    {"create, repaired too late", &kCreated, 0, 100, -1, 100, {}},
    {"create, vanishes and comes back", &kCreated, 1, 50, 0, 50, {"7"}},
    {"change, repaired", &kChanged, 0, 3, 0, 3, {"7"}},
    {"change, never", &kChanged, 0, 0, -1, 100, {"1"}},
    {"change, vanishes", &kChanged, 2, 0, -1, 2, {"1"}},
    {"attribute, repaired", &kBusCreated, 0, 3, 0, 3, {"7"}},
    {"attribute, vanishes", &kBusCreated, 2, 0, -1, 2, {}},
    {"attribute's change, repaired", &kBusChanged, 0, 3, 0, 3, {"7"}},
    {"attribute's change, vanishes", &kBusChanged, 1, 0, -1, 1, {"1"}},
    {"population, vanishes and comes back", &kPopulated, 1, 9, 0, 9, {"7"}},
    {"one type, vanishes and comes back", &kLoaded, 1, 9, 0, 9, {"7"}},
};
// clang-format on

class FetchAgain : public Handler
{
  protected:
    static Subject SubjectOf(const Way &way)
    {
        return {FindRow(way.type), kOid};
    }

    static void PutValue(const Way &way, int value)
    {
        const JsonPtr values(json_pack("{s:s}", "DisplayName", "x"));
        json_object_set_new(values.get(), way.column, json_integer(value));
        if (way.type == kStatus)
        {
            json_object_del(values.get(), "DisplayName");
        }
        Put(SubjectOf(way), values.get(), {});
    }

    // An offset of a text that is outside: of the key, or of the name.
    static void Break(const Way &way)
    {
        PutValue(way, 2);
        if (way.type == kStatus)
        {
            Bytes object = standin::ObjectBytes(kOid);
            object.at(0x15) = 0x20;
            EXPECT_EQ(standin::PutRawObject(object), "");
            return;
        }
        standin::State &state = standin::TheState();
        const std::lock_guard lock(state.lock);
        state.attributes.at(kAttributeKey).bytes.at(0x21) = 0x20;
    }

    // One that can't be read, behind its row where there is to be one.
    void Begin(const Way &way)
    {
        standin::Reset();
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        if (way.isChange)
        {
            PutValue(way, 1);
            EXPECT_EQ(Create(SubjectOf(way)), 0);
        }
        Break(way);
        Restart(3);
    }
};

TEST_F(FetchAgain, ObjectsAreFetchedAgain)
{
    for (const auto &test : kCases)
    {
        SCOPED_TRACE(test.name);
        const Way &way = *test.way;
        const Subject subject = SubjectOf(way);
        Begin(way);
        {
            const FateHook hook(
                std::string(way.line) + "ZO_STATUS_INVALID_VALUE returned\n",
                test.goneAt,
                [&]
                {
                    Remove(subject);
                },
                test.repairedAt,
                [&]
                {
                    PutValue(way, 7);
                });
            EXPECT_EQ(way.take(subject), test.result);
            EXPECT_EQ(hook.Count(), test.attempts);
        }
        EXPECT_EQ(SleepCount(), 0);
        EXPECT_EQ(mirror_.Rows(std::string("SELECT ") + way.column + " FROM " +
                               subject.row->table->name),
                  test.value);
    }
}

// Only a create says so when the attribute vanished meanwhile.
TEST_F(FetchAgain, AttributesThatVanishAreToldOf)
{
    for (const Way *way : {&kBusCreated, &kBusChanged})
    {
        Begin(*way);
        // The first fetch works, the second one doesn't.
        standin::SetFault("CfgIntAttribute_get_object", 5, 1, 1);
        EXPECT_EQ(way->take(SubjectOf(*way)), -1);
        EXPECT_EQ(CountLog("ZO_STATUS_NO_SUCH_OBJECT3: " +
                           standin::AttributePath(kAttributeKey) + "\n"),
                  way->isChange ? 0 : 1);
    }
}

} // namespace
} // namespace qdb::test
