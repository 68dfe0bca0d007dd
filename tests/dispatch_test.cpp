// From the Data Manager's records to the handlers.

#include "events/dispatch.h"
#include "objects/catalogue.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"

#include <gtest/gtest.h>

namespace qdb::test
{
namespace
{

constexpr uint16_t kStatus = 0x1001;
constexpr uint16_t kDirty = 3;
constexpr uint16_t kCreate = 7;
constexpr uint16_t kDestroy = 8;

int Notify(uint16_t kind, const Words &oids)
{
    return ObjectNotification(EventOf(List(kind, oids)), kind);
}

// An object whose key can't be read as it stands.
Bytes Broken(uint32_t oid)
{
    Bytes object = MakeObject(kStatus, oid);
    object[0x15] = 0x20;
    return object;
}

void Put(const Bytes &object, const Words &parents = {})
{
    EXPECT_EQ(standin::PutRawObject(object, parents), "");
}

void Remove(uint32_t oid)
{
    EXPECT_EQ(standin::DeleteObjects(Words{oid}, false), "");
}

using Dispatch = DbTest;

TEST_F(Dispatch, FetchesUnreadableObjectsAgain)
{
    const struct
    {
        const char *name;
        uint16_t kind;
        int goneAt;
        int mendedAt;
        int result;
        int lines;
        const char *popStatus; // of the row; NULL: no row
    } cases[] = {
        {"create, mended at once", kCreate, 0, 1, 0, 1, "7"},
        {"create, mended at last", kCreate, 0, 99, 0, 99, "7"},
        {"create, mended too late", kCreate, 0, 100, -1, 100, nullptr},
        {"create, vanishes", kCreate, 1, 0, -1, 100, nullptr},
        {"create, vanishes and comes back", kCreate, 1, 50, 0, 50, "7"},
        {"refresh, mended at the third", kDirty, 0, 3, 0, 3, "7"},
        {"refresh, never", kDirty, 0, 0, -1, 100, "1"},
        {"refresh, vanishes", kDirty, 2, 0, -1, 2, "1"},
    };
    uint32_t oid = 100;
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        ++oid;
        if (test.kind == kDirty)
        {
            Put(MakeObject(kStatus, oid, R"({"popStatus": 1})"));
            EXPECT_EQ(Notify(kCreate, {oid}), 0);
        }
        Put(Broken(oid));
        CountSleeps();
        const uint64_t fetched = standin::CallCount("ZOILGetObjByOID");
        {
            const FateHook hook(
                std::string("ObjectNotification: DATA_EVENT_DATA_OBJ_") +
                    (test.kind == kCreate ? "CREATE" : "DIRTY_LIST") +
                    ": ZO_STATUS_INVALID_VALUE returned\n",
                test.goneAt,
                [oid]
                {
                    Remove(oid);
                },
                test.mendedAt,
                [oid]
                {
                    Put(MakeObject(kStatus, oid, R"({"popStatus": 7})"));
                });
            EXPECT_EQ(Notify(test.kind, {oid}), test.result);
            EXPECT_EQ(hook.Count(), test.lines);
        }
        EXPECT_EQ(standin::CallCount("ZOILGetObjByOID") - fetched,
                  1U + static_cast<unsigned>(test.lines));
        EXPECT_EQ(SleepCount(), 0);
        EXPECT_EQ(mirror_.Rows("SELECT popStatus FROM TblDMStatus_Child_Obj "
                               "WHERE OID = " +
                               std::to_string(oid)),
                  test.popStatus == nullptr ? Lines{} : Lines{test.popStatus});
    }
}

TEST_F(Dispatch, LeavesAttributesToTheBus)
{
    const struct
    {
        uint32_t type;
        bool skipped;
    } cases[] = {
        {0x4050, false}, {0x4051, true}, {0x4054, true}, {0x4055, false}};
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.type);
        char line[80];
        std::snprintf(line, sizeof(line),
                      "Skipping legacy DM Event for ObjType=0x%04x!!\n",
                      test.type);
        // By the type that is mapped, before anything is fetched.
        mirror_.Rows("INSERT INTO ActiveOIDMapping VALUES (16, " +
                     std::to_string(test.type) + ")");
        Restart();
        standin::Reset();
        for (const uint16_t kind : {kCreate, kDirty, kDestroy})
        {
            const bool fetches = !test.skipped && kind != kDestroy;
            EXPECT_EQ(Notify(kind, {16}), fetches ? 256 : 0);
        }
        EXPECT_EQ(CountLog(line), test.skipped ? 3 : 0);
        EXPECT_EQ(standin::CallCount("ZOILGetObjByOID"),
                  test.skipped ? 0U : 2U);

        // By the type of the fetched object.
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        Bytes attribute = MakeObject(0x4051, 16);
        attribute[8] = static_cast<uint8_t>(test.type);
        Put(attribute);
        Restart();
        EXPECT_EQ(Notify(kCreate, {16}), 0);
        EXPECT_EQ(Notify(kDirty, {16}), 0);
        EXPECT_EQ(CountLog(line), test.skipped ? 2 : 0);
        EXPECT_EQ(mirror_.Rows("SELECT * FROM ActiveOIDMapping"), Lines{});
    }
}

} // namespace
} // namespace qdb::test
