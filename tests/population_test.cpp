// Filling the tables from what the Data Manager and the configuration manager
// hold.

#include "reconcile/population.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"

#include <gtest/gtest.h>

namespace qdb::test
{
namespace
{

constexpr uint16_t kStatus = 0x1001;
constexpr uint16_t kRoot = 0x900;
constexpr char kMapping[] = "insert into ActiveOIDMapping";

// Everything, or the objects of one type.
int Load(uint16_t type)
{
    return type == kRoot ? InsertObjBasedOnObjType(kRoot)
                         : OnLoadObjectsCreation();
}

class Population : public DbTest
{
  protected:
    // One or two objects of several types, and two attributes.
    static void Fill()
    {
        standin::PutAttribute("CfgIntAttribute", "A.1#B.1#C", nullptr, 50);
        standin::PutAttribute("CfgPasswdAttribute", "A.1#B.1#D", nullptr, 51);
        PutObject(kStatus, 12);
        PutObject(kStatus, 11);
        PutObject(0x31B, 21, R"({"protocol": 64})");
        PutObject(0x31B, 22, R"({"protocol": 32})"); // a hard disk
        PutObject(0x45, 31, R"({"slotType": 1})");
        PutObject(0xE1, 41);
    }

    Lines Mapped()
    {
        return mirror_.Rows("SELECT OID FROM ActiveOIDMapping ORDER BY 1");
    }
};

TEST_F(Population, GoesOnBehindWhatIsMissing)
{
    struct Case
    {
        const char *name;
        const char *call; // of the platform, that fails once
        int skip;
        int result;
        Lines mapped;
        const char *line;
    };
    // clang-format off
    const Case cases[] = {
        {"groups", "client_get_objects", 0, 256, {}, "Objects not found: CfgGroup 1\n"},
        {"an interface", "client_get_objects", 1, 0, {"11", "12", "21", "31", "41", "51"}, "OnLoadConfigObjectsCreation: Returned error c_retval= 0x00000100\n"},
        {"list of the first type", "ZOILListChildOIDByType", 0, 256, {"21", "31", "41", "50", "51"}, "total objects created: 7 \n"},
        {"list of the last type", "ZOILListChildOIDByType", 156, 256, {"11", "12", "21", "31", "41", "50", "51"}, "total objects created: 9 \n"},
        {"first object", "ZOILGetObjByOID", 0, 256, {"12", "21", "31", "41", "50", "51"}, "total objects created: 8 \n"},
        {"parents", "ZOILListParentOID", 0, 0, {"11", "12", "21", "31", "41", "50", "51"}, "total objects created: 9 \n"},
    };
    // clang-format on
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        standin::Reset();
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        Fill();
        standin::SetFault(test.call, 5, 1, test.skip);
        Restart();
        EXPECT_EQ(OnLoadObjectsCreation(), test.result);
        EXPECT_EQ(Mapped(), test.mapped);
        EXPECT_EQ(CountLog(test.line), 1);
    }
}

// The last failure decides, and none stops the walk. Objects 11, 12 and 13.
TEST_F(Population, TellsTheLastFailure)
{
    struct Case
    {
        const char *name;
        std::vector<std::pair<int, int>> faults; // mapping insert, status
        int goneObject;                          // 0: none
        int result;
        Lines mapped;
    };
    const Case cases[] = {
        {"none", {}, 0, 0, {"11", "12", "13"}},
        {"fails", {{0, 1}}, 0, -1, {"12", "13"}},
        {"corrupt last", {{2, 11}}, 0, 11, {"11", "12"}},
        {"fails, corrupt", {{0, 1}, {2, 11}}, 0, 11, {"12"}},
        {"corrupt, fails", {{0, 11}, {2, 1}}, 0, -1, {"12"}},
        {"corrupt, good", {{0, 11}}, 0, 11, {"12", "13"}},
        {"corrupt, gone", {{0, 11}}, 13, 256, {"12"}},
        {"gone, corrupt", {{1, 11}}, 11, 11, {"12"}},
    };
    for (const uint16_t type : {kStatus, kRoot})
    {
        for (const Case &test : cases)
        {
            SCOPED_TRACE(test.name);
            standin::Reset();
            mirror_.Rows("DELETE FROM ActiveOIDMapping");
            for (const uint32_t oid : {11u, 12u, 13u})
            {
                PutObject(type, oid);
            }
            Restart();
            int before = 0; // a call that fails isn't counted by later faults
            for (const auto &[insert, status] : test.faults)
            {
                FailSteps(kMapping, status, 1, insert - before++);
            }
            if (test.goneObject != 0)
            {
                standin::SetFault("ZOILGetObjByOID", 0, 1,
                                  test.goneObject - 11);
            }
            EXPECT_EQ(Load(type), test.result);
            ClearSqliteFaults();
            EXPECT_EQ(Mapped(), test.mapped);
        }
    }
}

TEST_F(Population, FetchesUnreadableObjectsAgain)
{
    const struct
    {
        const char *name;
        int goneAt;
        int mendedAt;
        int result;
        int lines;
    } cases[] = {
        {"mended at last", 0, 99, 0, 99},
        {"vanishes", 1, 0, -1, 100},
        {"vanishes and comes back", 1, 9, 0, 9},
    };
    const Bytes good[] = {MakeObject(kStatus, 11), MakeObject(kRoot, 11)};
    for (const Bytes &object : good)
    {
        const uint16_t type = HeaderOf(object)->objType;
        for (const auto &test : cases)
        {
            SCOPED_TRACE(test.name);
            standin::Reset();
            mirror_.Rows("DELETE FROM ActiveOIDMapping");
            Bytes broken = object;
            broken[0x15] = 0x20;
            EXPECT_EQ(standin::PutRawObject(broken), "");
            PutObject(type, 12);
            Restart();
            const FateHook hook(
                std::string(type == kRoot ? "InsertObjBasedOnObjType"
                                          : "OnLoadObjectsCreation") +
                    ": ZO_STATUS_INVALID_VALUE returned\n",
                test.goneAt,
                []
                {
                    standin::DeleteObjects(Words{11}, false);
                },
                test.mendedAt,
                [&]
                {
                    standin::PutRawObject(object);
                });
            EXPECT_EQ(Load(type), test.result);
            EXPECT_EQ(hook.Count(), test.lines);
            EXPECT_EQ(SleepCount(), 0);
            EXPECT_EQ(Mapped(),
                      test.result == 0 ? (Lines{"11", "12"}) : Lines{"12"});
        }
    }
}

TEST_F(Population, InsertsOneType)
{
    // clang-format off
    const struct
    {
        const char *name;
        uint32_t type;
        bool noList;
        int result;
        Lines mapped;
    } cases[] = {
        {"root data", kRoot, false, 0, {"14"}},
        {"no objects", 0x1C, false, 0, {}},
        {"no list", kRoot, true, 256, {}},
        {"first row of two", 0x31B, false, 0, {"21"}},
        {"unknown type, by the first row", 0x7777, false, 0, {"61"}},
        {"attributes, not from here", 0x4051, false, 0, {}},
        {"attributes, no list", 0x4051, true, 256, {}},
    };
    // clang-format on
    Fill();
    PutObject(kRoot, 14);
    PutObject(0x31B, 23, R"({"protocol": 16, "attributes": 2})");
    Bytes unknown = MakeObject(kStatus, 61);
    unknown[8] = unknown[9] = 0x77;
    EXPECT_EQ(standin::PutRawObject(unknown), "");
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        standin::SetFault("ZOILListChildOIDByType", 0, test.noList ? 1 : 0);
        EXPECT_EQ(InsertObjBasedOnObjType(test.type), test.result);
        EXPECT_EQ(Mapped(), test.mapped);
    }
}

} // namespace
} // namespace qdb::test
