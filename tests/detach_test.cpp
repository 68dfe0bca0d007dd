// A detach: the mirror is emptied at once, telemetry is told, and what doesn't
// come with events comes back.

#include "core/state.h"
#include "publish/telemetry.h"
#include "tests/support/change_listener.h"
#include "tests/support/db_fixture.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace qdb::test
{
namespace
{

constexpr uint16_t kStatus = 0x1001;
constexpr char kCompleted[] =
    "DM DETACHED!! Reload Config Objects - Completed!\n";

// The telemetry records of a detach, and those of the rows that come back.
Lines DetachRecords(const Lines &rows)
{
    Lines records;
    for (const char *table : TelemetryDetachTableList)
    {
        records.push_back(std::string(table) + "|0|9");
    }
    return records + rows;
}

class Detach : public ::testing::Test
{
  protected:
    Detach()
        : mirror_({.threads = true, .pipe = true}), pipe_(mirror_.Root().Pipe())
    {
        standin::PutAttribute("CfgIntAttribute", "A.1#B.1#C", nullptr);
        PutObject(0x900, 0x90);
        PutObject(0x900, 0x91);
        PutObject(kStatus, 0x50);
        standin::SendObjectList(7, std::vector<uint32_t>{0x50, 0x90});
        mirror_.Settle();
        Restart();
        pipe_.Take();
    }
    ~Detach() override
    {
        ClearSqliteFaults();
        RestoreSleeps();
    }

    // Sends the event and waits for the reload's last line.
    void Run(const std::string &lastLine)
    {
        CaptureLog();
        standin::Detach();
        EXPECT_TRUE(standin::WaitDelivered(kDeadlineMs));
        EXPECT_EQ(gDMDetachClearing, 0);
        WaitForLog(lastLine);
    }

    Lines Mapped()
    {
        return mirror_.Rows("SELECT ObjType FROM ActiveOIDMapping ORDER BY 1");
    }

    Mirror mirror_;
    PipeReader pipe_;
};

TEST_F(Detach, EmptiesTheMirrorAtOnce)
{
    EXPECT_EQ(Mapped(), (Lines{"2304", "4097"}));
    const ChangeListener changes;
    for (int round = 1; round <= 2; ++round)
    {
        SCOPED_TRACE(round);
        Run(kCompleted);
        EXPECT_EQ(pipe_.Take(), DetachRecords({"TbllmRootDataObj|1|18",
                                               "TbllmRootDataObj|2|18",
                                               "TblIntAttribute|1|18"}));
        EXPECT_EQ(Mapped(), (Lines{"2304", "2304", "16465"}));
        // Rows that come back are announced, and rows that go aren't.
        const auto seen = changes.WaitFor(3U * static_cast<unsigned>(round));
        ASSERT_EQ(seen.size(), 3U * static_cast<unsigned>(round));
        EXPECT_TRUE(std::ranges::all_of(seen,
                                        [](const Change &change)
                                        {
                                            return change.member ==
                                                   "Vexo_qdb_Resource_Added";
                                        }));
    }
}

TEST_F(Detach, GoesOnWhenAPartFails)
{
    standin::SetFault("client_get_objects", 5, 1);
    Run("Objects not found: CfgGroup 1\n");
    EXPECT_EQ(pipe_.Take(), DetachRecords({"TbllmRootDataObj|1|18",
                                           "TbllmRootDataObj|2|18"}));
    EXPECT_EQ(Mapped(), (Lines{"2304", "2304"}));

    // One interface without a list, and one list of root objects.
    standin::SetFault("client_get_objects", 5, 1, 1);
    standin::SetFault("ZOILListChildOIDByType", 0, 1);
    Run("DM DETACHED!! Reload Config Objects - failed status:256!\n");
    EXPECT_EQ(pipe_.Take(), DetachRecords({}));
    EXPECT_EQ(Mapped(), Lines{});

    // The tables can't be cleared: telemetry is told so all the same.
    Run(kCompleted);
    EXPECT_EQ(Mapped(), (Lines{"2304", "2304", "16465"}));
    pipe_.Take();
    FailSteps("delete from ActiveOIDMapping", SQLITE_ERROR, 1);
    Run("DM DETACHED!! Reload Config Objects - failed status:-1!\n");
    EXPECT_EQ(pipe_.Take(), DetachRecords({}));
    EXPECT_EQ(CountLog("Could not removed from ActiveOIDMapping Table. Error: "
                       "-1"),
              1);
    EXPECT_EQ(Mapped(), (Lines{"2304", "2304", "16465"}));
}

} // namespace
} // namespace qdb::test
