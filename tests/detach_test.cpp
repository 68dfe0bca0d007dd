// A detach: the mirror is emptied at once, telemetry is told, and what doesn't
// come with events comes back.

#include "core/state.h"
#include "publish/telemetry.h"
#include "tests/support/change_listener.h"
#include "tests/support/db_fixture.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <span>

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

// Bytes in use; sanitizers don't tell.
size_t HeapInUse()
{
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

TEST_F(Detach, GivesBackWhatThousandsOfObjectsTook)
{
    constexpr uint16_t kTypes[] = {0x15, 0x16, 0x40, 0x41, 0xE1, 0x304, 0x1200};
    constexpr uint32_t kObjects = 5000;
    std::vector<uint32_t> oids;
    for (uint32_t i = 0; i < kObjects; ++i)
    {
        oids.push_back(PutObject(kTypes[i % std::size(kTypes)], 0x10000 + i));
    }
    size_t heap[2] = {};
    for (size_t cycle = 0; cycle < std::size(heap); ++cycle)
    {
        SCOPED_TRACE(cycle);
        // An event takes 4,000.
        const std::span all(oids);
        standin::SendObjectList(7, all.first(kObjects / 2));
        standin::SendObjectList(7, all.last(kObjects / 2));
        mirror_.Settle();
        EXPECT_EQ(mirror_.Value("SELECT count(*) FROM ActiveOIDMapping WHERE "
                                "OID BETWEEN 65536 AND 70535"),
                  std::to_string(kObjects));
        pipe_.Take();
        Run(kCompleted);
        EXPECT_EQ(pipe_.Take(), DetachRecords({"TbllmRootDataObj|1|18",
                                               "TbllmRootDataObj|2|18",
                                               "TblIntAttribute|1|18"}));
        EXPECT_EQ(mirror_.Value("SELECT count(*) FROM ActiveOIDMapping"), "3");
        // The test's own records.
        CaptureLog(0);
        ClearSqliteFaults();
        heap[cycle] = HeapInUse();
    }
    std::printf("heap behind the first and the second detach: %zu, %zu bytes\n",
                heap[0], heap[1]);
    constexpr size_t kBytesPerObject = 10;
    EXPECT_LT(heap[1], heap[0] + kBytesPerObject * kObjects);
}

} // namespace
} // namespace qdb::test
