// Objects that can't be read as they stand when the tables are filled. What
// else may be amiss then is recorded in the stream.

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

using Population = DbTest;

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
            EXPECT_EQ(type == kRoot ? InsertObjBasedOnObjType(kRoot)
                                    : OnLoadObjectsCreation(),
                      test.result);
            EXPECT_EQ(hook.Count(), test.lines);
            EXPECT_EQ(SleepCount(), 0);
            EXPECT_EQ(mirror_.Rows("SELECT OID FROM ActiveOIDMapping"),
                      test.result == 0 ? (Lines{"11", "12"}) : Lines{"12"});
        }
    }
}

} // namespace
} // namespace qdb::test
